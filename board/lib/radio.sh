# shellcheck shell=sh disable=SC2154
# The regulatory domain, for `station` and `softap`. Sourced after common.sh.

# country: the domain that the kernel is to use: two letters, or 00 for the world.
country() {
    country_code=$(setting "$STATE_DIR/regdomain" CLREGDOMAIN) || country_code='#'
    [ "$country_code" != '#' ] || country_code=$REG_DOMAIN_DEFAULT
    case $country_code in
    [A-Z][A-Z]) ;;
    00) ;;
    *)
        say "regulatory domain '$country_code' is no country code: using 00"
        country_code=00
        ;;
    esac
    # WO is the market's word for the world domain; the kernel knows it as 00.
    [ "$country_code" != WO ] || country_code=00
    printf '%s\n' "$country_code"
}

kernel_country() {
    timeout 5 iw reg get 2>/dev/null | sed -n 's/^country \(..\).*/\1/p' | head -n 1
}

# set_country: hands the domain to the kernel, which loads its rules a moment later. A refusal is
# told and nothing more: the radio then keeps to the rules that it has.
set_country() {
    wanted=$(country)
    [ "$(kernel_country)" != "$wanted" ] || return 0
    if ! timeout 5 iw reg set "$wanted" 2>/dev/null; then
        say "iw reg set $wanted failed"
        return 0
    fi
    country_left=10
    while [ "$country_left" -gt 0 ]; do
        [ "$(kernel_country)" != "$wanted" ] || return 0
        bb sleep 0.1
        country_left=$((country_left - 1))
    done
    say "the kernel did not take the regulatory domain $wanted"
}

# station_channel: the channel of the station that is joined; 1 when it is not.
station_channel() {
    station_info=$(timeout 5 iw dev "$STATION" info 2>/dev/null | sed -n 's/^[[:space:]]*channel \([0-9]*\) .*/\1/p')
    [ -n "$station_info" ] && printf '%s\n' "$station_info"
}
