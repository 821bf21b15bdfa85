# product.regdom at the start: a region's name or its beginning, a country, a country that the kernel does not take,
# what is neither, and nothing. Only the first three succeed; the robot goes on with its start in each case.
# limit: 240 s
story_begins

# start KERNEL COMMAND...: the daemon starts with the product.regdom of now; the COMMANDs are all it runs for that,
# and the kernel's domain is KERNEL after the next ifup.
start() {
    local kernel=$1; shift
    mark
    start_daemon
    expect_log 'found wlan0 iface' 40
    stop_daemon
    diff <(printf '%s\n' "$@") - < <(log_since_mark | sed -E 's/.* COMMAND=[^ ]*\/([^ /]+)/\1/;t;d' |
        sed '/ wlan1$/,$d;/_control/d') || fail "other commands for $(kvs_get product.regdom)"
    ifdown wlan0 || true   # or the daemon's own ifup, of the domain before, is all that there is
    ifup wlan0
    [[ $(iw reg get | grep -m1 country) == "country $kernel:"* ]] || fail "not $kernel but $(iw reg get)"
    ifdown wlan0
}
succeeds() { start "$@"; refute_log 'failed to set regdomain'; }
fails() { start "$@"; expect_log '\[ERROR\].*failed to set regdomain' 1; }

step "a region, by its name in any case and by its beginning"
kvs_set product.regdom jAPAN
succeeds JP 'provision --clregdomain JP' provision
expect_log '\[INFO\].*region IS Japan' 1
kvs_set product.regdom e
succeeds 00 'provision --clregdomain WO' provision
expect_log '\[INFO\].*region IS ETSI' 1
expect_log '\[INFO\].*using \(WO\) reg domain' 1

step "a country, which the kernel must take, and one that it does not know"
kvs_set product.regdom de
succeeds DE 'provision --clregdomain DE' provision 'ifdown wlan0' 'ifup wlan0'
refute_log 'region IS'
kvs_set product.regdom xx
fails 00 'provision --clregdomain XX' provision 'ifdown wlan0' 'ifup wlan0' 'provision --clregdomain #'
expect_log '\[ERROR\].*input data not valid ISO country code, searched for "XX" in "(DE|00)' 1

step "what is no domain reaches no shell; no value at all"
for value in U1 USA '$(reboot)' ';reboot'; do
    kvs_set product.regdom "$value"
    fails 00 'provision --clregdomain #' provision
    expect_log '\[ERROR\].*unexpected string for ISO country code' 1
done
refute_reboot
kvs_del product.regdom
fails 00 'provision --clregdomain #' provision
expect_log '\[ERROR\].*Could not find product.regdom key' 1
