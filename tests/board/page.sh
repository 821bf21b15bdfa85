# shellcheck shell=bash disable=SC2154
# The set-up page: served by the real httpd on an address of loopback, carried out by the real agent with a stand-in
# of netwardenctl. Sourced by cases.sh.
page_dir=/run/netwarden-board/setup
setup=/usr/lib/netwarden-board/setup

# access_point SSID SIGNAL SUITES [CAPABILITY [WPA SUITES]]: as `iw` prints it. No SUITES: open, or WEP with "wep".
access_point() {
    printf 'BSS 02:00:00:00:02:00(on wlan0)\n\tcapability: ESS %s(0x0411)\n\tsignal: %s.00 dBm\n\tSSID: %s\n' \
        "${3:+Privacy }" "$2" "$1"
    case $3 in wep | '' | -) ;; *) printf '\tRSN:\t * Version: 1\n\t\t * Authentication suites: %s\n\t\t * Capabilities: %s (0x00)\n' "$3" "${4-}" ;; esac
    [ -z "${5-}" ] || printf '\tWPA:\t * Version: 1\n\t\t * Authentication suites: %s\n' "$5"
    printf '\tHT capabilities:\n\t\tCapabilities: 0x10c\n'
}

lists_names_by_what_joining_them_takes() {
    {
        access_point 'Home' -70 PSK
        access_point 'Home' -40 'PSK FT/PSK SAE' MFP-capable
        access_point 'Home' -30 SAE MFP-required # of one name, the one that can be joined
        access_point 'three' -41 'SAE FT/SAE' MFP-required
        access_point 'frames' -42 'PSK PSK/SHA-256' MFP-required
        access_point 'both' -43 'PSK/SHA-256' MFP-required PSK
        access_point 'firm' -44 'IEEE 802.1X'
        access_point 'old' -45 - '' PSK
        access_point 'older' -46 wep
        access_point '\x20a\x5c\xff' -47 ''
        access_point 'owe' -48 OWE MFP-required
        access_point '' -20 PSK
        access_point '\x00\x00' -20 PSK
    } >/tmp/scan
    seq 40 | while read -r i; do access_point "fake$i" -90 PSK; done >>/tmp/scan
    stand_in iw <<<'[ "$3" != scan ] || cat /tmp/scan'
    printf '%s\n' SETUP_PAGE=yes SOFTAP_ADDR=127.0.0.9 SETUP_FAREWELL_S=0 >>/etc/netwarden-board/board.conf
    $setup scan
    [ "$(head -n 10 $page_dir/networks | sed 's/[^ ]* //' | tr '\n' ,)" = "$(printf '%s,' \
        'psk 486f6d65' 'sae 7468726565' 'pmf 6672616d6573' 'psk 626f7468' 'eap 6669726d' 'psk 6f6c64' 'wep 6f6c646572' \
        'open 20615cff' 'other 6f7765' 'psk 66616b6539')" ]
    [ "$(wc -l <$page_dir/networks)" -eq 24 ]
}

# ask REQUEST-LINE [HEADER...]: the answer goes to /tmp/answer; a body is on standard input.
ask() { { printf '%s\r\n' "$@" '' && cat; } | timeout 10 nc 127.0.0.9 80 >/tmp/answer; }
get() { ask "GET ${1-/} HTTP/1.1" "Host: ${2-127.0.0.9}" </dev/null; }
# post BODY [HEADER]; T stands for a fresh token
post() {
    get
    body=${1/T/token=$(sed -n 's/.*name=token value=//; s/^\([0-9a-f]\{32\}\)>$/\1/p' /tmp/answer)}
    printf %s "$body" | ask 'POST / HTTP/1.1' 'Host: 127.0.0.9' "Content-Length: ${#body}" "Content-Type: ${2-application/x-www-form-urlencoded}"
}
status() { head -n 1 /tmp/answer | cut -d ' ' -f 2; }
phase() { sed -n 's/PHASE=//p' $page_dir/state; }
in_phase() { [ "$(phase)" = "$1" ]; }

refuses_what_it_was_not_asked_for() {
    stand_in netwardenctl <<'CTL'
echo "$*" >>/tmp/calls
case $* in *--step\ settings*) cat >/tmp/secret; cat /tmp/told; exit 1 ;; esac
CTL
    : >/tmp/calls
    $setup start
    long=$(printf %04500d 0)
    while read -r code body type; do
        post "${body/LONG/$long}" $type
        [ "$(status)" = "$code" ]
        [ ! -s /tmp/calls ]
    done <<'POSTS'
400 nothing
400 T&net=486f6d65&pass=12345678&other=1
400 T&net=486f6d65&net=486f6d65&pass=12345678
400 T&net=486f6d65&pass=1234%00678
400 T&net=486f6d65&pass=1234%0a678
400 T&net=486f6d65&pass=1234%zz678
400 T&net=486f6d65&pass="12345678"
413 T&net=486f6d65&pass=LONG
415 T&net=486f6d65&pass=12345678 text/plain
403 net=486f6d65&pass=12345678
403 token=00000000000000000000000000000000&net=486f6d65&pass=12345678
403 token=%2e%2e%2f%2e%2e%2fetc%2fpasswd&net=486f6d65&pass=12345678
422 T&net=486f6d65&pass=1234567
422 T&net=486f6d65&pass=x234567890123456789012345678901234567890123456789012345678901234
422 T&net=6f6c646572&pass=12345678
422 T&net=7468726565&pass=12345678
422 T&net=other&name=&pass=12345678
422 T&net=other&name=123456789012345678901234567890123&pass=12345678
422 T&pass=12345678
422 T&net=486f6d65&pass=12345678&addr=10.0.0.2&mask=255.255.0.255&gw=10.0.0.1
422 T&net=486f6d65&pass=12345678&addr=10.0.0.2&mask=255.255.255.0&gw=10.0.1.1
422 T&net=486f6d65&pass=12345678&addr=10.0.0.2%3breboot&mask=255.255.255.0&gw=10.0.0.1
POSTS
    post 'T&net=other&name=%22%3E%3Cscript%3E%27%26&pass=short12'
    grep -q 'value="&quot;&gt;&lt;script&gt;' /tmp/answer
    exits 1 grep 'short12\|<script>.' /tmp/answer
    head -c 3000 /dev/urandom | ask 'POST / HTTP/1.1' 'Host: 127.0.0.9' 'Content-Length: 3000' 'Content-Type: application/x-www-form-urlencoded'
    [ "$(status)" = 400 ]
    get / somewhere.else
    [ "$(status)" = 302 ]
    exits 1 grep name=token /tmp/answer
    # Many at once, from one that keeps all its connections: another phone is served when it lets go.
    for _ in $(seq 150); do (echo 'GET / HTTP/1.1' && sleep 3) | nc 127.0.0.9 80 >/dev/null 2>&1 & done
    sleep 1
    [ "$(ps -o user | grep -c '^nobody')" -le 60 ]
    until_true 20 eval 'get && [ "$(status)" = 200 ]'
    [ "$(ls $page_dir/tokens | wc -l)" -le 41 ]
}

# What netwarden tells in the end, and what the owner reads; the password is in no file, no argument and no answer.
tells_each_verdict() {
    while read -r state address reason; do
        echo "{\"message\":{\"wifistat\":{\"wifi\":$state,\"uap\":false}}}" >/tmp/told
        echo "$address" | tr -d '\n-' >/run/netwarden-board/station.address
        : >/tmp/calls
        post 'T&net=486f6d65&pass=tulip+%25%5c%20&addr=10.0.0.2&mask=255.255.255.0&gw=10.0.0.1'
        [ "$(status)" = 303 ]
        until_true 60 in_phase failed
        [ "$(sed -n 's/REASON=//p' $page_dir/state)" = "$reason" ]
        until_true 60 gone $page_dir/busy
        [ "$(cat /tmp/calls)" = '--json --timeout 400 provision --step settings --hex --ssid 486f6d65 --pass-file - --static --addr 10.0.0.2 --mask 255.255.255.0 --gw 10.0.0.1' ]
        [ "$(cat /tmp/secret; echo .)" = $'tulip %\\ \n.' ]
        get
        grep -q 'class=fault.*Home' /tmp/answer
        grep -q 'value=486f6d65 .* checked' /tmp/answer
        exits 1 grep -r tulip /tmp/answer $page_dir/state $page_dir/networks /var/log
    done <<'VERDICTS'
2 - notfound
3 - password
4 - address
4 10.0.0.2 gateway
6 - refused
9 - settings
10 - robot
VERDICTS
    # With a phone that has gone away in the middle of its request.
    (echo 'GET / HTTP/1.1' && sleep 30) | nc 127.0.0.9 80 &
    until_true 5 eval '[ "$(pgrep -cf "httpd -f")" -eq 2 ]'
    $setup stop
    until_true 5 eval '! pgrep -f "setup agent|httpd|dnsmasq"'
}

check lists_names_by_what_joining_them_takes refuses_what_it_was_not_asked_for tells_each_verdict
