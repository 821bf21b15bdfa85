# The robot lists every device of the home that answers ARP, named by what it announces with mDNS.
# limit: 600 s
kvs_set robot.disc_reconnect_sleep_sec 100000   # no hop in between
home_up
home_devices 20
step "20 devices answer ARP, nine of them announce services"
home_announce 1 kitchen 'Speaker-1a2b' _googlecast._tcp id=1a2b cd=CD0001 rm= ve=05 'md=Home Mini' 'fn=Küche oben'
home_announce 2 livingroom 'Television-3c4d' _googlecast._tcp id=3c4d cd=CD0002 'md=UHD 55' 'fn=Wohnzimmer "groß"'
home_announce 3 lamp 'Leselampe.1' _hap._tcp 'md=LIFX A19' ci=5
home_announce 4 printer 'Drucker (2. Stock) \ "Büro"; A4' _ipp._tcp rp=ipp/print
home_announce 5 mobile '02:77:00:00:00:05@fe80::77' _apple-mobdev2._tcp 'fn=Mobile'
home_announce 6 camera '居間のカメラ' _http._tcp path=/ 'md=Cam 6'
home_announce 7 speaker2 'Speaker-5e6f' _googlecast._tcp id=5e6f cd=CD0007 'md=Home Max' 'fn=Hall'
home_announce 7 speaker2 'Hall web page' _http._tcp path=/
home_announce 8 second-lamp 'Lamp 8' _hap._tcp 'md=LIFX Mini'
home_announce 9 nas 'Daten' _smb._tcp host=nas

save_network
start_daemon
wait_state 1 120
robot_mdns_up 9

step "tracking is switched on"
background devices bash -c 'while :; do netwardenctl devices --timeout 300; done'
mark
daemon_peak_on
began=$(uptime_s)
netwardenctl track start
expect_log 'pinging 254 addresses' 60
sweep_began=$(uptime_s)
expect_log 'discover threads done after [0-9]+l seconds' 240
sweep_took=$(since "$sweep_began")

# As avahi-browse writes it: what a name in a TXT record escapes stays escaped.
for i in {1..20}; do
    case $i in
    1) shown='"google_cd":"CD0001","type":"smart-speaker","name":"K\\195\\188che oben","hostname":"kitchen.local","md":"Home Mini"' ;;
    2) shown='"google_cd":"CD0002","type":"tv","name":"Wohnzimmer \\","hostname":"livingroom.local","md":"UHD 55"' ;;
    3) shown='"type":"light","name":"Leselampe.1","hostname":"lamp.local","md":"LIFX A19"' ;;
    4) shown='"name":"Drucker (2. Stock) \\ \"Büro\"; A4","hostname":"printer.local"' ;;
    6) shown='"name":"居間のカメラ","hostname":"camera.local","md":"Cam 6"' ;;
    7) shown='"google_cd":"CD0007","type":"smart-speaker","name":"Hall","hostname":"speaker2.local","md":"Home Max"' ;;
    8) shown='"type":"light","name":"Lamp 8","hostname":"second-lamp.local","md":"LIFX Mini"' ;;
    9) shown='"name":"Daten","hostname":"nas.local"' ;;
    *) shown= ;;
    esac
    expect_device 60 $i "$shown"
done
step "20 of 20 are listed $(since "$began") s after the start"
[[ $(census_size) == 21 ]]   # and the gateway
expect_log 'cannot parse ipv6 addresses' 1
step "sweep of a /24: $sweep_took s; peak of netwarden: $(daemon_peak Threads) threads, $(daemon_peak VmRSS) kB resident"
(($(daemon_peak VmHWM) < 32000))

if command -v arp-scan >/dev/null; then
    began=$(uptime_s)
    found=$(arp-scan --interface=wlan0 --localnet --quiet --plain | sort -u | wc -l)
    step "arp-scan beside it: $found devices in $(since "$began") s"
fi
expect "netwardenctl devices shows them as a table" 20 grep -qE \
    '^02:77:00:00:00:01 +K.*che oben +kitchen.local +smart-speaker +Home Mini' "$LAB_RESULTS/devices.log"
grep -E '^02:77:00:00:00:20 +- +- +- +-' "$LAB_RESULTS/devices.log"
