# An x-www-form-urlencoded body as lines "NAME VALUE", VALUE for printf %b. Ends with 1 for a name that is not in NAMES, one that comes
# twice, a control character or an escape that is none.
BEGIN { RS = "&"; digits = "0123456789abcdef" }
{
    sub(/\n$/, "")
    at = index($0, "=")
    name = substr($0, 1, at - 1)
    if (!at || index(" " ENVIRON["NAMES"] " ", " " name " ") == 0 || seen[name]++) exit bad = 1
    value = substr($0, at + 1)
    out = ""
    for (i = 1; i <= length(value); i++) {
        c = substr(value, i, 1)
        if (c == "+") c = "\\0040"
        if (c == "%") {
            high = index(digits, tolower(substr(value, i + 1, 1))); low = index(digits, tolower(substr(value, i + 2, 1)))
            n = (high - 1) * 16 + low - 1
            if (i + 2 > length(value) || !high || !low || n < 32 || n == 127) exit bad = 1
            c = "\\0" int(n / 64) int(n % 64 / 8) n % 8
            i += 2
        }
        out = out c
    }
    print name, out
}
END { exit bad }
