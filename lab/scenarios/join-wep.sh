# An old home with WEP, a five-letter key: the robot writes it as hexadecimal digits, and logs it nowhere.
# limit: 180 s
HOME_KEY=q7Xz4
home_up security=wep
save_network
start_peers
start_daemon
wait_state 1 90
[[ $(station_status pairwise_cipher) == WEP-40 ]]
expect_netinfo 5 sec=2
expect_log 'WEP-40 network block generated' 1
refute_text "$HOME_KEY" "$(hex "$HOME_KEY")"
