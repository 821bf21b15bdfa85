# The set-up page on the soft AP, as the owner's phone sees it: raw HTTP, so that a scenario says exactly what is sent.
PAGE=$LAB/page.html # the page that came last

# page_on [SETTING=VALUE...]: the robot's maker has the page.
page_on() { printf '%s\n' SETUP_PAGE=yes "$@" >>/etc/netwarden-board/board.conf; }

# page_ask [HEADER...]: sends what is on standard input after these and the usual headers; the answer is the page that came last.
# The phone gives up after ten seconds.
page_ask() {
    { printf '%s\r\n' "$@" 'Connection: close' '' && cat; } |
        phone timeout 10 busybox nc 192.168.10.1 80 >"$PAGE.new" 2>/dev/null
    [[ -s $PAGE.new ]] && mv "$PAGE.new" "$PAGE"
}

# page_get [PATH [HOST]]
page_get() { page_ask "GET ${1:-/} HTTP/1.1" "Host: ${2:-192.168.10.1}" "Accept-Language: ${LANGUAGE:-en}" </dev/null; }

# page_shows PATTERN: the page that the phone gets now.
page_shows() { page_get && grep -qE -- "$1" "$PAGE"; }

# expect_page PATTERN SECONDS
expect_page() { wait_until "$2" page_shows "$1" || fail "no page with /$1/ within $2 s; the last was:
$(grep -vE '^[^<]*\{.*\}|<symbol|<rect' "$PAGE" | tail -40)"; }

# page_post FIELD=VALUE...: sends the form of the page that came last.
page_post() {
    local body field token
    token=$(sed -n 's/.*name=token value=\([0-9a-f]*\).*/\1/p' "$PAGE")
    body=token=$token
    for field; do body+="&${field%%=*}=$(printf %s "${field#*=}" | od -An -v -tx1 | tr -d '\n' | tr ' ' %)"; done
    page_post_raw "$body"
}

# page_post_raw BODY [HEADER...]: any body.
page_post_raw() {
    local body=$1; shift
    printf %s "$body" | page_ask 'POST / HTTP/1.1' 'Host: 192.168.10.1' "Content-Length: ${#body}" \
        'Content-Type: application/x-www-form-urlencoded' "$@"
}

# page_status: of the answer that came last.
page_status() { head -1 "$PAGE" | cut -d' ' -f2; }

# phone_at_soft_ap: the button was pressed; the phone joins the soft AP and stays in it, whenever it is there.
phone_at_soft_ap() {
    expect_log 'SoftAP is up' 180
    phone_join ssid="Plover-$(kvs_get product.robotid | cut -c1-4)"
}

# phone_forwards: who asks the virtual machine's forwarded port (lab/run --forward) sits at the phone.
phone_forwards() {
    local outside
    outside=$(phone ip -o link | sed -n 's/^[0-9]*: \(e[a-z0-9]*\):.*/\1/p')
    phone ip addr add 10.0.2.15/24 dev "$outside"
    phone ip link set "$outside" up
    background forward "${in_phone[@]}" perl /lab/guest/forward 192.168.10.1
}
