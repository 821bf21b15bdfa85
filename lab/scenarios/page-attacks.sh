# Whoever joins the soft AP, or plays access point beside it, gets nothing out of the page and nothing past it.
# limit: 420 s
page_on
home_ap_up ssid='<script>alert(1)</script>'
home_ap_up ssid=$'";reboot;\n$(id)' radio=2 channel=1
new_robot_up
app_wants_provisioning
phone_at_soft_ap
expect_page 'name=token' 20

step "names from the air are text"
grep -q '&#60;script&#62;alert' "$PAGE"
refute "markup from the air" grep -q '<script>alert' "$PAGE"
grep -q "value=$(hex $'";reboot;\n$(id)') " "$PAGE"
for header in "frame-ancestors 'none'" 'X-Frame-Options: DENY' 'Cache-Control: no-store'; do grep -q "$header" "$PAGE"; done

step "posts that no page has sent"
mark
good="net=other&name=Evil&pass=12345678"
while IFS='|' read -r -u 4 status body header; do
    page_post_raw "$(eval "$body")" "${header:-Accept: */*}"
    [[ $(page_status) == "$status" ]] || fail "$body: $(head -1 "$PAGE")"
done 4<<'POSTS'
403|echo "$good"
403|echo "token=$(printf %032d 0)&$good"
403|echo "token=..%2f..%2f..%2fetc%2fpasswd&$good"
413|echo "$good$(printf %05000d 0)"
400|echo "$good&wactivate=1"
400|echo "$good%0aroot"
POSTS
head -c 2000 /dev/urandom | page_ask 'POST / HTTP/1.1' 'Host: 192.168.10.1' 'Content-Length: 2000' \
    'Content-Type: application/x-www-form-urlencoded'
[[ $(page_status) == 400 ]]
page_get / bank.example
refute "a token under another's name" grep -q token= "$PAGE"
refute_message brisk/network/events wlcfg

step "a body that never ends, and a crowd"
for _ in {1..80}; do
    { printf 'POST / HTTP/1.1\r\nHost: 192.168.10.1\r\nContent-Length: 4000\r\n\r\nx'; sleep 5; } |
        phone timeout 20 busybox nc 192.168.10.1 80 >/dev/null 2>&1 3>&- &
done
expect_page 'name=token' 90
(($(ps -e -o user= | grep -c nobody) <= 61))

step "one token is good once, and one attempt runs at a time"
page_get
page_post net=other name=Nowhere pass=12345678
[[ $(page_status) == 303 ]]
page_post net=other name=Elsewhere pass=12345678   # the same page once more: it is being tried
[[ $(page_status) == 303 ]]
expect_message brisk/network/events "$(hex Nowhere)" 30
refute_message brisk/network/events "$(hex Elsewhere)"
