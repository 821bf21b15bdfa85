#!/bin/sh
# The installed language packs, from the file LANGUAGE_PACK of board.conf:
#   -l  ids   -v  versions   -e  those of the extra pack too
# A pack that is not installed has an empty value: each asked line is printed in any case.

# shellcheck source=lib/common.sh
. /usr/lib/netwarden-board/common.sh

usage='usage: get_lang.sh -l|-v|-lv [-e]'
ids='' versions='' extra=''
while getopts lveh option 2>/dev/null; do
    case $option in
    l) ids=yes ;;
    v) versions=yes ;;
    e) extra=yes ;;
    h)
        echo "$usage"
        exit 0
        ;;
    *) die "$EX_USAGE" "$usage" ;;
    esac
done
shift $((OPTIND - 1))
[ $# -eq 0 ] && [ -n "$ids$versions" ] || die "$EX_USAGE" "$usage"

show() {
    printf '%s=%s\n' "$1" "$(setting "$LANGUAGE_PACK" "$1")"
}

[ -z "$ids" ] || show LANGUAGE_PACK_ID
[ -z "$ids" ] || [ -z "$extra" ] || show EXTRA_LANGUAGE_PACK_ID
[ -z "$versions" ] || show LANGUAGE_PACK_VERSION
[ -z "$versions" ] || [ -z "$extra" ] || show EXTRA_LANGUAGE_VERSION
