# After html.awk: each line, hexadecimal digits, as escapes of three octal digits.
{
    for (i = 1; i < length($0); i += 2) {
        n = byte($0, i)
        printf "\\%d%d%d", int(n / 64), int(n % 64 / 8), n % 8
    }
}
