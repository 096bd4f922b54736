# SPDX-License-Identifier: Apache-2.0
# fish completion for vpnoalctl. The program itself knows what fits; ":files PATTERN" asks for file names too.
function __vpnoalctl_complete
    set -l typed (commandline -opc) (commandline -ct)
    for line in ($typed[1] __complete $typed[2..-1] 2>/dev/null)
        if string match -q ':files *' -- $line
            __fish_complete_suffix (string replace ':files *' '' -- $line)
        else
            echo $line
        end
    end
end
complete -c vpnoalctl -f -a '(__vpnoalctl_complete)'
