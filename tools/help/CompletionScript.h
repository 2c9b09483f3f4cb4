#pragma once

namespace qel {

/// What is the same for every tree of commands. Names of objects are given by strangers: they are
/// only compared and quoted, never expanded, so `compgen -W` is of no use for them.
inline constexpr const char* kCompletionScript = R"script(# Completion of @COMMAND@ in bash.

# Sets what may follow the command $1: its verbs and options, what its arguments are, and what any
# number of further ones is.
_@COMMAND@_command() {
    case $1 in
@COMMANDS@    esac
}

# Sets what the value of the option $2 of the command $1 is: nothing if it takes none.
_@COMMAND@_value() {
    kind=
    case "$1 $2" in
@VALUES@    esac
}

# Offers those of its arguments that begin with what is typed, quoted or not.
_@COMMAND@_offer() {
    local text quoted
    for text; do
        printf -v quoted %q "$text"
        if [[ $text == "$current"* || $quoted == "$current"* ]]; then
            COMPREPLY+=("$quoted")
        fi
    done
}

# Offers what is between $1 and $2 in the names of the files that have both, with $3 before it.
_@COMMAND@_offer_objects() {
    local path
    while IFS= read -r path; do
        path=${path#"$1"}
        _@COMMAND@_offer "${3-}${path%"$2"}"
    done < <(compgen -G "$1?*$2")
}

# Offers what can be given where one of the kinds in the arguments is wanted.
_@COMMAND@_offer_kinds() {
    local kind slash=
    if [[ $1 == choices ]]; then
        shift
        _@COMMAND@_offer "$@"
        return
    fi
    for kind; do
        case $kind in
            files | folders)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(
                    [[ $kind == files ]] && compgen -f -- "$current" || compgen -d -- "$current"
                )
                ;;
            users) mapfile -t COMPREPLY < <(compgen -u -- "$current") ;;
            groups) mapfile -t COMPREPLY < <(compgen -g -- "$current") ;;
            rings) _@COMMAND@_offer_objects /dev/shm/ .shm ;;
            blocks) _@COMMAND@_offer_objects /tmp/ _shm.lock ;;
            semaphores)
                [[ $current == /* ]] && slash=/
                _@COMMAND@_offer_objects /dev/shm/sem. '' "$slash"
                ;;
        esac
    done
}

# Sets the words up to the one that is typed. Names may have colons, at which bash parts words.
_@COMMAND@_join() {
    local part
    for part in "${COMP_WORDS[@]:0:COMP_CWORD + 1}"; do
        if [[ $COMP_WORDBREAKS == *:* ]] && ((${#words[@]} > 1)) &&
            [[ $part == :* || ${words[-1]} == *: ]]; then
            words[-1]+=$part
        else
            words+=("$part")
        fi
    done
}

# Takes from what is offered the part up to the last colon that is typed: bash leaves that alone.
_@COMMAND@_part() {
    local i colons=${current//[^:]/}
    [[ $COMP_WORDBREAKS == *:* ]] || return 0
    for ((i = 0; i < ${#COMPREPLY[@]}; ++i)); do
        local rest=$colons
        while [[ -n $rest ]]; do
            COMPREPLY[i]=${COMPREPLY[i]#*:}
            rest=${rest#:}
        done
    done
}

# Goes through the words up to the one that is typed: sets the command, how many arguments it has
# got, and the kind of value that its last option waits for.
_@COMMAND@_walk() {
    local i word verb
    _@COMMAND@_command "$command"
    for ((i = 1; i < ${#words[@]} - 1; ++i)); do
        word=${words[i]}
        if [[ $word == '=' ]]; then
            continue  # between an option and its value
        elif [[ -n $kind ]]; then
            kind=
        elif [[ $word == -* ]]; then
            _@COMMAND@_value "$command" "$word"
        else
            for verb in "${verbs[@]}"; do
                if [[ $word == "$verb" ]]; then
                    command+=" $verb"
                    _@COMMAND@_command "$command"
                    continue 2
                fi
            done
            ((++given))
        fi
    done
}

_@COMMAND@() {
    local current command=@COMMAND@ kind= more= given=0
    local -a words=() verbs=() options=() arguments=() kinds=()
    COMPREPLY=()
    _@COMMAND@_join
    current=${words[-1]}
    [[ $current == '=' ]] && current=
    _@COMMAND@_walk
    [[ -n $kind ]] || [[ $current == -* ]] || kind=${arguments[given]:-$more}
    if [[ -n $kind ]]; then
        read -ra kinds <<<"$kind"
        _@COMMAND@_offer_kinds "${kinds[@]}"
    elif [[ $current == -* ]] || ((${#verbs[@]} == 0)); then
        _@COMMAND@_offer "${options[@]}"
    else
        _@COMMAND@_offer "${verbs[@]}"
    fi
    _@COMMAND@_part
}

complete -F _@COMMAND@ @COMMAND@
)script";

}  // namespace qel
