#compdef vpnoal-wg
# SPDX-License-Identifier: Apache-2.0
# zsh completion for vpnoal-wg: its commands, then the names in /etc/wireguard and files NAME.conf.
_vpnoal_wg()
{
    local -a typed=("${(@)words[2,CURRENT-1]}")
    if [[ $words[CURRENT] == -* ]]; then
        compadd -- ${(fu)"$($words[1] --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]*')"}
    elif ((${typed[(I)(up|down|run)]})); then
        compadd -- /etc/wireguard/*.conf(N:t:r)
        _files -g '*.conf'
    else
        compadd -- up down run
    fi
}
_vpnoal_wg "$@"
