# bash completion for kbadbtunneld                         -*- shell-script -*-
#
# Completes the command, "--adb-serial-port", "--wait" and "--timeout" after
# "connect", and for "disconnect" the instance ids that the running daemon knows.

_kbadbtunneld_instance_ids()
{
    # "getinstances" never starts a daemon; without one it lists nothing.
    # The printed document has one "uuid" key per line.
    "$1" getinstances 2>/dev/null \
        | sed -n 's/^[[:space:]]*"uuid": "\([^"]*\)".*$/\1/p'
}

_kbadbtunneld()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()

    # "--adb-serial-port=5555" arrives split at "=" when "=" is a word break.
    local before_equals=
    ((COMP_CWORD >= 2)) && [[ $prev == = ]] && before_equals=${COMP_WORDS[COMP_CWORD - 2]}
    if [[ $prev == --adb-serial-port || $prev == --timeout ]] \
        || [[ $before_equals == --adb-serial-port || $before_equals == --timeout ]]; then
        return 0 # a port number or seconds: nothing to offer
    fi
    [[ $cur == = ]] && cur=

    # Positional words before the cursor: the command, then the id.
    local command= nargs=0 i word
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --adb-serial-port | --timeout) ((i++)) ;;
            =) ;;
            -*) ;;
            *)
                if [[ $i -ge 2 && ${COMP_WORDS[i - 1]} == = ]]; then
                    [[ ${COMP_WORDS[i - 2]} == --adb-serial-port || ${COMP_WORDS[i - 2]} == --timeout ]] && continue
                fi
                ((nargs++ == 0)) && command=$word
                ;;
        esac
    done

    local options="--help --help-all --version"
    [[ $command == connect ]] && options="--adb-serial-port --timeout --wait $options"

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return 0
    fi

    if ((nargs == 0)); then
        mapfile -t COMPREPLY < <(compgen -W "start stop getdaemoninfo getinstances connect disconnect doctor" -- "$cur")
    elif ((nargs == 1)) && [[ $command == disconnect ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_kbadbtunneld_instance_ids "${COMP_WORDS[0]}")" -- "$cur")
    fi
    return 0
} && complete -F _kbadbtunneld kbadbtunneld
