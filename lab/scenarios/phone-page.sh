# The owner's phone sets the robot up with the page on the soft AP: it opens by itself, shows the home, takes the password, and each
# way in which that can fail is told in words; at the end the page tells the robot's address.
# limit: 1500 s
has_no_page() { ! page_get; }
nothing_runs() { ! pgrep -f netwarden-board/setup; }
seen_processes() { tr '\0' '\n' <"$LAB_RESULTS/processes.log"; }

page_on
home_up
new_robot_up
kvs_del robot.name

step "the button is pressed: a page opens by itself"
refute "a page without a soft AP" busybox nc -w 1 192.168.10.1 80
began=$(uptime_s)
app_wants_provisioning
phone_at_soft_ap
phone busybox nslookup connectivitycheck.gstatic.com 192.168.10.1 | grep -q '^Address.* 192\.168\.10\.1$'
expect_page 'name=token' 10
figure "seconds from the button to the page" "$(since "$began")"
figure "bytes that the phone loads" "$(wc -c <"$PAGE")"
(($(wc -c <"$PAGE") < 20000))
page_get /generate_204 connectivitycheck.gstatic.com
[[ $(page_status) == 302 ]]
page_get /hotspot-detect.html/ captive.apple.com
grep -q '^Location: http://192\.168\.10\.1/' "$PAGE"
page_get
grep -q "value=$(hex "$HOME_SSID") class=psk" "$PAGE"

# On each row: what the page says in the end | the network and the rest of the form | how the home is changed for it | seconds
home=$(hex "$HOME_SSID")
while IFS='|' read -r -u 4 says form before seconds; do
    step "the page will say: $says"
    eval "$before"
    page_get
    # With the first password: whoever looks at the robot's processes all the time.
    [[ $says != 'did not'* ]] || background processes sh -c 'while :; do cat /proc/[0-9]*/cmdline /proc/[0-9]*/environ; done 2>/dev/null'
    eval "page_post $form"
    [[ $(page_status) == 303 ]]
    sent=$(uptime_s)
    expect_page 'data-phase=trying' 5
    expect "the soft AP goes" 60 has_no_page
    [[ ! -e $LAB/processes.pid ]] || end processes
    expect_page 'data-phase=(form|connected)' "$seconds"
    figure "seconds from send to: $says" "$(since "$sent")"
    says=${says% }
    grep -q "$says" "$PAGE" || fail "it says: $(grep -A3 -E 'role=|<h1>' "$PAGE")"
    refute "a password in the page" grep -qE 'mistype[d]|correct hors[e]' "$PAGE"
done 4<<'TRIES'
did not accept the password | net=$home pass='mistyped horse' | | 150
could not find | net=other name=Nowhere pass='correct horse 42' | | 150
refused the robot | net=$home pass="$HOME_KEY" | home_ap_restart rejects=1 | 200
was given no address | net=$home pass="$HOME_KEY" | home_ap_restart; end dhcp | 150
the router does not answer | net=$home pass="$HOME_KEY" | home_dhcp_up; home_arp_drop on | 400
under the address <strong>192.168.77.20< | net=$home pass="$HOME_KEY" addr=192.168.77.20 mask=255.255.255.0 gw=$HOME_GATEWAY | home_arp_drop off | 150
TRIES

step "the owner has seen it: the soft AP ends, and with it the page"
expect_message tarn/2/event/network/.* '^\{"event":"resetCloudConnection"\}$' 60
expect "the soft AP goes" 30 has_no_page
[[ $(kvs_get network.ssid) == "$home" && $(kvs_get network.last_prov_status) == 1 ]]
[[ $(robot_address) == 192.168.77.20 ]]
expect "the end of all that belongs to the page" 15 nothing_runs
seen_processes | grep -q -- --pass-file
refute "the password was an argument" eval "seen_processes | grep -E 'mistype[d]|$(hex 'mistyped')'"
refute_text 'mistyped horse' "$HOME_KEY" "$(psk_of "$HOME_SSID" "$HOME_KEY")"
