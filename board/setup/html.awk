# html(HEX): the bytes as HTML. Everything but letters, digits and blanks becomes a reference by number, so that no name from
# the air can be markup; what is no UTF-8, controls a terminal or turns the direction of writing is shown as such.
function html(hex,    out, i, n, c, more) {
    out = ""
    for (i = 1; i < length(hex); i += 2) {
        n = byte(hex, i)
        if (n < 128) {
            c = n >= 32 && n < 127 ? sprintf("%c", n) : ""
            out = out (c ~ /^[A-Za-z0-9 ]$/ ? c : c != "" ? "&#" n ";" : "&#65533;")
            continue
        }
        more = n >= 194 && n < 224 ? 1 : n >= 224 && n < 240 ? 2 : n >= 240 && n < 245 ? 3 : 0
        c = more == 1 ? n - 192 : more == 2 ? n - 224 : n - 240
        if (!more) { out = out "&#65533;"; continue }
        for (; more && i + 2 < length(hex) && byte(hex, i + 2) >= 128 && byte(hex, i + 2) < 192; more--) {
            i += 2
            c = c * 64 + byte(hex, i) - 128
        }
        if (more || c < 160 || (c >= 8203 && c <= 8207) || (c >= 8232 && c <= 8238) || (c >= 8288 && c <= 8303) ||
            (c >= 55296 && c < 57344) || (c >= 57344 && c < 63744) || c == 65279 || c >= 917504) c = 65533
        out = out "&#" c ";"
    }
    return out
}
function byte(hex, i) { return index("123456789abcdef", substr(hex, i, 1)) * 16 + index("123456789abcdef", substr(hex, i + 1, 1)) }
