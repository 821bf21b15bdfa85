# After html.awk: each line, a name in hexadecimal digits, as HTML.
{ print html($0) }
