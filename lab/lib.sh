# The words in which scenarios are written, by subject in lab/lib/. Sourced by every scenario; runs as root inside the
# robot, which is the virtual machine's root network namespace. `home` and `phone` are namespaces with radios of their own.
#
# expect_... waits at most SECONDS and then fails, showing what was seen last. Messages and log lines count
# from the last `mark` on (at first: from the start). PATTERN is an extended regular expression.

HOME_SSID=${HOME_SSID-'Lab Home'}
HOME_KEY=${HOME_KEY-'correct horse 42'}
HOME_GATEWAY=192.168.77.1
STORE=/opt/halvik/persistent/opt/halvik/data/kvs
LAB=/run/lab
LAB_LOG=$LAB_RESULTS/log           # the robot's syslog, each line with its time of arrival
LAB_MESSAGES=$LAB_RESULTS/messages # the broker's traffic: time, topic, payload

for subject in story messages robot peers home census owner page storm plug tell boot; do
    # shellcheck source=/dev/null
    source "/lab/lib/$subject.sh"
done
