#compdef vpnoal-wg
# SPDX-License-Identifier: Apache-2.0
# zsh completion for vpnoal-wg: its commands, then the names in /etc/wireguard and files NAME.conf.
if ((CURRENT == 2)); then
    compadd up down run
else
    compadd -- /etc/wireguard/*.conf(N:t:r)
    _files -g '*.conf'
fi
