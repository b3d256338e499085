# bash completion for brindle(1).
#
# Completes the commands while none is given yet, then only the options that
# the chosen command takes (each once), local paths after --local-path,
# account names after --local-user and the boolean words after
# --passive-mode. Installed as share/bash-completion/completions/brindle,
# where bash-completion loads it the first time brindle is completed.

_brindle()
{
    local cur prev words cword split
    _init_completion -s || return

    case $prev in
        --local-path)
            _filedir
            return
            ;;
        --local-user)
            # Accounts of the password database; root (user id 0) is left
            # out because brindle refuses to run as it.
            local accounts
            accounts=$(getent passwd | awk -F: '$3 != 0 { print $1 }')
            mapfile -t COMPREPLY < <(compgen -W "$accounts" -- "$cur")
            return
            ;;
        --passive-mode)
            mapfile -t COMPREPLY < <(compgen -W '1 0 true false yes no on off' \
                -- "$cur")
            return
            ;;
        --host | --port | --login | --password | --retry | --retry-delay | \
            --remote-path)
            # Free values: nothing sensible to offer.
            return
            ;;
    esac
    $split && return

    # The command decides which options exist; help ends the command line.
    local command="" commands=0 i
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            -h | --help) return ;;
            --upload | --download | --remove | --list)
                command=${words[i]#--}
                commands=$((commands + 1))
                ;;
        esac
    done
    [[ $cur == -* || -z $cur ]] || return
    if ((commands == 0)); then
        mapfile -t COMPREPLY < <(compgen -W '--upload --download --remove
            --list --help -h' -- "$cur")
        return
    fi
    ((commands == 1)) || return

    local options='--host --port --login --password --passive-mode --retry
        --retry-delay --remote-path'
    case $command in
        upload | download)
            options+=' --local-user --local-path --recursive --follow-symlinks'
            ;;
        remove) options+=' --recursive' ;;
        list) options+=' --long-listing' ;;
    esac

    # Every option may be given once: leave out those already on the line.
    local option offered=()
    for option in $options; do
        for ((i = 1; i < cword; i++)); do
            [[ ${words[i]%%=*} == "$option" ]] && continue 2
        done
        offered+=("$option")
    done
    mapfile -t COMPREPLY < <(compgen -W "${offered[*]}" -- "$cur")
} &&
    complete -F _brindle brindle

# ex: filetype=sh
