# Completion of netwardenctl for bash. tests/completion_test.py holds it against the help.
# shellcheck shell=bash

_netwardenctl() {
    local everywhere='--help --broker --user --broker-pass-file --cafile --cert --key --timeout --json'
    local commands='status link wait get doctor report watch devices discover restart forget log-level track provision
        train help version'
    local states='unknown off connected no-network wrong-password no-address network-down rejected told connecting
        bad-settings not-applied stopped'

    # By blanks, for bash itself parts words at colons and equal signs.
    local -a words
    local cur=${COMP_WORDS[COMP_CWORD]} line=${COMP_LINE:0:COMP_POINT} previous command='' i
    read -ra words <<<"$line"
    [[ $line != *[[:blank:]] ]] || words+=('')
    previous=${words[-2]}
    [[ ${words[-1]} != --*=* ]] || previous=${words[-1]%%=*} cur=${words[-1]#*=}

    for ((i = 1; i < ${#words[@]} - 1; i++)); do
        case ${words[i]} in
        --broker | --user | --broker-pass-file | --cafile | --cert | --key | --timeout) ((i++)) ;;
        -*) ;;
        *)
            command=${words[i]}
            break
            ;;
        esac
    done

    local offered=''
    COMPREPLY=()
    case $previous in
    --interface) offered=$(cd /sys/class/net 2>/dev/null && echo *) ;;
    --state) offered=$states ;;
    --step) offered='start settings end' ;;
    --broker-pass-file | --cafile | --cert | --key | --pass-file | --robot-pass-file)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    # Whatever it is, nobody here knows it.
    --broker | --user | --timeout | --count | --ssid | --address | --addr | --mask | --gw | --dns1 | --dns2) return ;;
    *)
        case $command:$cur in
        :-*) offered="$everywhere --version" ;;
        :*) offered=$commands ;;
        status:-* | link:-* | doctor:-* | report:-*) offered="$everywhere --interface" ;;
        wait:-*) offered="$everywhere --interface --state" ;;
        watch:-*) offered="$everywhere --interface --count" ;;
        discover:-*) offered="$everywhere --address --interface" ;;
        restart:-*) offered="$everywhere --wait" ;;
        forget:-*) offered="$everywhere --yes" ;;
        provision:-*)
            offered="$everywhere --ssid --hex --step --pass-file --pass --open --robot-pass-file --static --addr
                --mask --gw --dns1 --dns2 --tidelink --phone --abort"
            ;;
        train:-*) offered="$everywhere --follow --end" ;;
        *:-*) offered=$everywhere ;;
        get:*) offered='channel discovery' ;;
        log-level:*) offered='verbose dbg info warn err' ;;
        track:*) offered='start pause stop' ;;
        help:*) offered=$commands ;;
        report:*)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        esac
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$cur")
} && complete -F _netwardenctl netwardenctl
