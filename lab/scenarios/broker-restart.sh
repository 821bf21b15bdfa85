# The broker restarts under a connected robot: what happened meanwhile is told afterwards, in order.
# limit: 180 s
robot_at_home

step "the broker is away, and so is the access point for a moment"
mark
broker_down
home_ap_down
expect_log 'Network is down' 60
home_ap_up
expect_log 'wifi = 1$' 120
refute_message network/events wifistat
kill -STOP "$(daemon_pid)"   # or it may tell everything before the recorder of the broker's traffic is on
broker_up
kill -CONT "$(daemon_pid)"

step "the broker is back"
wait_state 5 60
wait_state 1 60
expect_in_order '"wifi":5,' '"wifi":1,'
