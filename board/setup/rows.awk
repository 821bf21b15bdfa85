# The list's rows, from lines of `networks`. -f html.awk first; CHOSEN, the texts T_... and SHOWN, a file to be made when CHOSEN
# was among them, in the environment.
function text(key) { return ENVIRON["T_" key] }
{
    bars = $1 >= -55 ? 4 : $1 >= -67 ? 3 : $1 >= -75 ? 2 : 1
    signal = text(bars == 4 ? "STRONG" : bars == 3 ? "GOOD" : bars == 2 ? "FAIR" : "WEAK")
    icon = "<svg class=i aria-hidden=true><use href=#s" bars " /></svg>"
    lock = $2 == "open" ? "" : "<svg class=i aria-hidden=true><use href=#lock /></svg>"
    if ($2 ~ /^(open|psk|wep)$/) {
        said = ", " signal ", " text($2 == "open" ? "OPEN" : "LOCKED")
        print "<li><label><input type=radio name=net required value=" $3 " class=" $2 " data-kind=" $2 \
            ($3 == ENVIRON["CHOSEN"] ? " checked" : "") "><span class=name dir=auto>" html($3) "<span class=hide>" said \
            "</span></span>" lock icon "</label>"
    } else {
        reason = text($2 == "sae" ? "SAE" : $2 == "pmf" ? "PMF" : $2 == "eap" ? "EAP" : "OTHERKIND")
        print "<li><div class=no><span class=name><span dir=auto>" html($3) "</span><small>" reason "</small></span>" lock icon "</div>"
    }
}
