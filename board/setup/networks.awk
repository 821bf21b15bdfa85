# What `iw dev IF scan` prints, as lines "SIGNAL KIND NAME": one for each name, by its best access point; SIGNAL in dBm,
# NAME two hexadecimal digits a byte. KIND is what joining takes: open, psk, wep; or why netwarden cannot join:
# sae (WPA3 only), pmf (protected frames required), eap (802.1X), other. A network that hides its name is left out.
BEGIN {
    for (i = 32; i < 127; i++) code[sprintf("%c", i)] = sprintf("%02x", i)
}
/^BSS / {
    note()
    name = ""; signal = -100; privacy = rsn = wpa = psk = eap = sae = required = 0; part = ""
}
/^\t[^\t]/ { part = $1 }
/^\tcapability:/ { privacy = / Privacy/ }
/^\tsignal:/ { signal = int($2) }
/^\tSSID: / { name = hex(substr($0, 8)) }
part == "RSN:" { rsn = 1 }
part == "WPA:" { wpa = 1 }
# The older security knows no protected frames: a network that has both is joined by it.
(part == "RSN:" || part == "WPA:") && /Authentication suites:/ {
    suites = $0 " "
    if (part == "WPA:" && suites ~ / PSK /) old = 1
    if (suites ~ / PSK /) psk = 1
    if (suites ~ /SAE/) sae = 1
    if (suites ~ /802\.1X|EAP/) eap = 1
}
part == "RSN:" && /Capabilities:.*MFP-required/ { required = 1 }
END {
    note()
    for (each in joinable) print joinable[each], kind[each], each
    for (each in refused) if (!(each in joinable)) print refused[each], why[each], each
}

function note(    is) {
    if (name == "" || name ~ /^(00)+$/) return
    if (!rsn && !wpa) is = privacy ? "wep" : "open"
    else if (psk && (old || !required)) is = "psk"
    else is = psk ? "pmf" : sae ? "sae" : eap ? "eap" : "other"
    old = 0
    if (is == "open" || is == "psk" || is == "wep") {
        if (name in joinable && joinable[name] >= signal) return
        joinable[name] = signal; kind[name] = is
    } else if (!(name in refused) || refused[name] < signal) {
        refused[name] = signal; why[name] = is
    }
}

# iw writes a byte that is no printable ASCII as \xNN, the backslash too.
function hex(text,    out, c) {
    out = ""
    while (text != "") {
        c = substr(text, 1, 1)
        if (c == "\\") {
            out = out substr(text, 3, 2)
            text = substr(text, 5)
        } else {
            out = out code[c]
            text = substr(text, 2)
        }
    }
    return out
}
