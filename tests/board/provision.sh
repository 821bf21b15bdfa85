# shellcheck shell=bash disable=SC2154
# `provision`: what it refuses, what it stores, what it reports. Sourced by cases.sh.

settings() {
    cat "$state"/* 2>/dev/null
}

# Each refused line must leave every stored setting as it was, and say something.
refuses_bad_arguments() {
    local before line output bad=0
    provision --clmode dhcp --apssid Plover-AB12 --apchan 6 --aphwmode g --clregdomain US
    before=$(settings)
    while IFS= read -r line; do
        output=$(eval "provision $line" 2>&1)
        local code=$?
        if [ $code -ne 64 ] || [ -z "$output" ] || [ "$(settings)" != "$before" ]; then
            echo "provision $line: exit $code, says '$output', settings: $(settings)"
            bad=1
        fi
    done <<'LINES'
--clmode
--clmode pppoe
--clmode dhcp --clmode dhcp
--clmode dhcp --clipaddr 192.168.1.2
--clipaddr 192.168.1.2
dhcp
--what 1
--clmode --clregdomain
--clmode static
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.0 --clgw 192.168.1.1
--clmode static --clipaddr 192.168.1.256 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.01.2 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr fd00::2 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 127.0.0.2 --clnetmask 255.255.255.0 --clgw 127.0.0.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.0.255 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 24 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.0 --clgw 192.168.2.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.0 --clgw 192.168.1.2 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.255 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.0 --clgw 192.168.1.0 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.255 --clgw 192.168.1.1 --cldnsns1 192.168.1.1
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 "#"
--clmode static --clipaddr 192.168.1.2 --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 8.8.8.8 --cldnsns2 0.0.0.0
--clmode static --clipaddr '192.168.1.2;reboot' --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 8.8.8.8
--clmode static --clipaddr $'192.168.1.2\n1.1.1.1' --clnetmask 255.255.255.0 --clgw 192.168.1.1 --cldnsns1 8.8.8.8
--apssid Plover-1234
--apssid Plover-1234 --apchan 6
--apssid Plover-1234 --apchan 14 --aphwmode g
--apssid Plover-1234 --apchan 52 --aphwmode a
--apssid Plover-1234 --apchan 06 --aphwmode g
--apssid Plover-1234 --apchan '6 7' --aphwmode g
--apssid Plover-1234 --apchan 6 --aphwmode n
--apssid 123456789012345678901234567890123 --apchan 6 --aphwmode g
--apssid $'Plover\nwpa=2' --apchan 6 --aphwmode g
--apssid '' --apchan 6 --aphwmode g
--clregdomain USA
--clregdomain U1
--clregdomain '##'
--clregdomain '$(reboot)'
--clregdomain US --clmode dhpc
LINES
    return $bad
}

# The exact texts that netwarden hands to the shell.
takes_the_daemons_lines() {
    eval 'provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 --cldnsns1 10.1.2.1  --cldnsns2 "#" 
' || return
    equal 'CLMODE=static CLIPADDR=10.1.2.3 CLNETMASK=255.255.255.0 CLGW=10.1.2.1 CLDNSNS1=10.1.2.1 CLDNSNS2=# ' \
        "$(tr '\n' ' ' <"$state"/client)" || return
    eval 'provision --apssid Plover-A_-1 --apchan 6 --aphwmode g 
' || return
    equal 'APSSID=Plover-A_-1 APCHAN=6 APHWMODE=g ' "$(tr '\n' ' ' <"$state"/softap)" || return
    eval 'provision --clmode dhcp 
' && equal CLMODE=dhcp "$(cat "$state"/client)"
}

report_names_the_domain() {
    local given want
    while read -r given want; do
        eval "provision --clregdomain $given" || return
        equal "CL REG DOMAIN : $want" "$(provision | grep 'CL REG DOMAIN')" || return
    done <<'DOMAINS'
US US
jp JP
WO WO
00 00
"#" #
DOMAINS
    rm -r "$state"
    equal 'CL REG DOMAIN : #' "$(provision | grep 'CL REG DOMAIN')"
}

# The same settings again must not touch the flash; a failed write must keep the old file.
writes_whole_or_not_at_all() {
    provision --clmode dhcp || return
    local inode
    inode=$(stat -c %i:%Y "$state"/client)
    provision --clmode dhcp || return
    equal "$inode" "$(stat -c %i:%Y "$state"/client)" || return
    mount -t tmpfs -o size=8k none "$state" || return
    provision --clmode dhcp || return
    dd if=/dev/zero of="$state"/filler bs=4096 count=8 2>/dev/null
    exits 73 provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 \
        --cldnsns1 10.1.2.1 --cldnsns2 '#' || return
    equal CLMODE=dhcp "$(cat "$state"/client)" || return
    equal 'client filler .[!.]*' "$(cd "$state" && echo * .[!.]*)" || return
    mount -o remount,ro "$state"
    exits 73 provision --clregdomain US || return
    umount "$state"
}

# netwarden holds a record lock on this file, as another user perhaps, while provision runs.
lock_file_is_left_to_its_owner() {
    rm -f /tmp/provision.lock
    provision --clmode dhcp || return
    [ ! -e /tmp/provision.lock ] || {
        echo "/tmp/provision.lock was made"
        return 1
    }
    perl -e '
        use Fcntl;
        sysopen(my $f, "/tmp/provision.lock", O_WRONLY | O_CREAT, 0600) or die "open: $!";
        my $lock = pack("s s l! l! i", F_WRLCK, 0, 0, 0, 0);
        fcntl($f, F_SETLKW, $lock) or die "lock: $!";
        exit(system("timeout", "10", "provision", "--clmode", "dhcp") >> 8);'
}

broken_board_conf_is_said() {
    local conf=/etc/netwarden-board/board.conf
    cp $conf /tmp/board.conf
    echo 'STATION="wlan0' >>$conf
    exits 78 provision --clmode dhcp
    local result=$?
    cp /tmp/board.conf $conf
    return $result
}

check "provision refuses bad arguments and keeps the settings" refuses_bad_arguments
check "provision takes the daemon's command lines" takes_the_daemons_lines
check "provision reports the regulatory domain" report_names_the_domain
check "provision writes a file whole or not at all" writes_whole_or_not_at_all
check "provision leaves the lock file to the daemon" lock_file_is_left_to_its_owner
check "a board.conf with a syntax error is refused" broken_board_conf_is_said
