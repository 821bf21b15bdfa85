#!/bin/sh
# The diagnostic web server: a status page for whoever sits at the robot's own console or USB port.
#   webserver_control.sh start|stop      both succeed when it is so already
# It takes no input, shows no secret, and listens on DIAG_ADDR:DIAG_PORT (board.conf) only.

# shellcheck source=lib/common.sh
. /usr/lib/netwarden-board/common.sh

pidfile=$RUN_DIR/webserver.pid
home=/usr/share/netwarden-board/www

listens() {
    bb netstat -ltn 2>/dev/null | grep -q "[ :]$DIAG_ADDR:$DIAG_PORT "
}

start() {
    ! pid_of "$pidfile" httpd >/dev/null || return 0
    is_ipv4 "$DIAG_ADDR" || die "$EX_CONFIG" "DIAG_ADDR: '$DIAG_ADDR' is not an IPv4 address"
    mkdir -p "$RUN_DIR" || die "$EX_CANTCREAT" "cannot make $RUN_DIR"
    set -- httpd -f -p "$DIAG_ADDR:$DIAG_PORT" -h "$home"
    # Give up root where the robot has a user for that.
    ! grep -q '^nobody:' /etc/passwd || set -- "$@" -u nobody
    command -v httpd >/dev/null || set -- busybox "$@"
    setsid "$@" </dev/null >/dev/null 2>&1 &
    echo $! | replace_file "$pidfile" 644
    left=20
    while [ "$left" -gt 0 ] && kill -0 $! 2>/dev/null; do
        # The port may be somebody else's: then httpd is about to end.
        ! listens || { bb sleep 0.1 && kill -0 $! 2>/dev/null && return 0; }
        bb sleep 0.1
        left=$((left - 1))
    done
    stop_by_pidfile "$pidfile" httpd
    die "$EX_UNAVAILABLE" "the web server did not start on $DIAG_ADDR:$DIAG_PORT"
}

case ${1-} in
start) start ;;
stop) stop_by_pidfile "$pidfile" httpd ;;
-h | --help) echo "usage: webserver_control.sh start|stop" ;;
*) die "$EX_USAGE" "usage: webserver_control.sh start|stop" ;;
esac
