# A subnet in which every address answers: all are listed, one report holds them all, and memory stays small.
# limit: 700 s
robot_at_home
home_devices 1
for last in {2..254}; do
    [[ 192.168.77.$last == "$(robot_address)" ]] || echo "addr add 192.168.77.$last/24 dev eth0"
done | ip -n device1 -force -batch - 2>/dev/null || true   # one of them it has already
robot_mdns_up
daemon_peak_on
tracking_begins
expect_log 'pinging 254 addresses' 60
expect_log 'discover threads done' 200
expect "all 252 and the gateway in the census" 400 eval '(($(census | grep -o "\"02:77:" | wc -l) == 253))'
step "253 listed; peak of netwarden: $(daemon_peak Threads) threads, $(daemon_peak VmRSS) kB resident"
(($(daemon_peak VmHWM) < 32000))
tracking_ends 40
