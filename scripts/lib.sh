# Shared by the scripts here, which source it: quiet stages with their durations.
# shellcheck shell=bash

set -euo pipefail

this_script=$(realpath -- "$0")
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck disable=SC2034  # for scripts that take files from their caller
caller_directory=$PWD
cd "$root"

scratch=$(mktemp -d)
ticker=

stop_ticker() {
    if [[ -n $ticker ]]; then
        kill "$ticker" 2>/dev/null || true
        wait "$ticker" 2>/dev/null || true
        ticker=
    fi
}

clean_up() {
    stop_ticker
    rm -rf "$scratch"
}
trap clean_up EXIT

die() {
    printf '%s: %s\n' "$(basename "$0")" "$1" >&2
    exit "${2:-1}"
}

# usage_if_asked ARGUMENT...: for --help, shows the comment at the head of the script.
usage_if_asked() {
    case " $* " in
        *" --help "* | *" -h "*)
            sed -n '2,/^$/s/^# \{0,1\}//p' "$this_script"
            exit 0
            ;;
    esac
}

# stage TITLE COMMAND...: runs the command quietly and tells how long it took. What it writes is
# shown when it fails. Returns the command's status.
stage() {
    local title=$1 start=$SECONDS status=0 verdict=ok
    shift
    if [[ -t 1 ]]; then
        while true; do
            printf '\r%-42s %4d s' "$title" $((SECONDS - start))
            sleep 1
        done &
        ticker=$!
    fi
    # The command stays in the foreground, where Ctrl-C reaches it.
    "$@" >"$scratch/stage.log" 2>&1 </dev/null || status=$?
    if [[ -n $ticker ]]; then
        stop_ticker
        printf '\r'
    fi
    if ((status != 0)); then
        verdict="FAILED with status $status"
    fi
    printf '%-42s %4d s  %s\n' "$title" $((SECONDS - start)) "$verdict"
    if ((status != 0)); then
        sed 's/^/    /' "$scratch/stage.log"
    fi
    return "$status"
}
