# shellcheck shell=bash
# What the scripts share. A script goes to the top of the tree and then sources this file; it may set
# $logs before. The comment at the top of a script is what --help prints.

logs=${logs:-build/logs}
# Seconds between two lines that say what is running, if the output is not a terminal.
interval=${interval:-30}
# When the outermost script started.
export QUORVEL_STARTED=${QUORVEL_STARTED:-$(date +%s)}
terminal=false
[ ! -t 1 ] || terminal=true

# usage: prints the comment at the top of the script.
usage() {
    awk 'NR == 1 { next } !/^#/ { exit } { sub(/^# ?/, ""); print }' "scripts/${0##*/}"
}

# refuse WHAT...: ends the script, because its arguments are wrong.
refuse() {
    echo "${0##*/}: $* (--help explains)" >&2
    exit 2
}

# answer_help ARGUMENT...: prints the help and ends the script, if the first argument asks for it.
answer_help() {
    case ${1:-} in
        -h | --help) usage; exit 0 ;;
    esac
}

# no_arguments ARGUMENT...: for a script that takes none.
no_arguments() {
    answer_help "$@"
    [ $# -eq 0 ] || refuse "unknown argument $1"
}

# one_of WORD KNOWN...: returns whether a word is known.
one_of() {
    local known
    for known in "${@:2}"; do
        [ "$1" != "$known" ] || return 0
    done
    return 1
}

# time_so_far: prints the time since the outermost script started, such as 2:05.
time_so_far() {
    local seconds=$(($(date +%s) - QUORVEL_STARTED))
    printf '%d:%02d' $((seconds / 60)) $((seconds % 60))
}

# say TEXT...: prints a line. On a terminal it takes the place of the line that says what is running.
say() {
    if $terminal; then printf '\r\e[K'; fi
    printf '%s\n' "$*"
}

# tick COMMAND...: says again and again what is running, in the words that the command prints, until
# the script ends.
tick() {
    local wait=1 columns waited
    $terminal || wait=$interval
    columns=$(tput cols 2>/dev/null || echo 80)
    while :; do
        if $terminal; then
            printf '\r%s\e[K' "$(printf '%s  %s' "$(time_so_far)" "$("$@")" | cut -c "1-$((columns - 1))")"
        else
            printf '%s  %s\n' "$(time_so_far)" "$("$@")"
        fi
        for ((waited = 0; waited < wait; ++waited)); do
            sleep 1 >/dev/null 2>&1
            kill -0 $$ 2>/dev/null || exit 0
        done
    done
}

# start_ticker COMMAND..., stop_ticker: tick in the background.
start_ticker() {
    tick "$@" &
    ticker=$!
}

stop_ticker() {
    # KILL, because a process that was forked a moment ago would run the script's trap for EXIT.
    kill -KILL "$ticker" 2>/dev/null || true
    wait "$ticker" 2>/dev/null || true
    if $terminal; then printf '\r\e[K'; fi
}

# progress_of LOG: prints how far a build or a test program is, as its output tells; nothing for other
# output.
progress_of() {
    awk '/^\[[0-9]+\/[0-9]+\] / { split($1, part, /[][\/]/); done = part[2]; all = part[3] }
        /^\[=+\] Running [0-9]+ tests? / { done = 0; all = $3 }
        /^\[ RUN      \]/ { ++done }
        match($0, / round [0-9]+ of [0-9]+/) { split(substr($0, RSTART), part, /[ ,]/); done = part[3]; all = part[5] }
        END { if (all > 0) printf "%d of %d", done, all }' "$1" 2>/dev/null
}

# state_of_step NAME LOG: what tick shows of a step.
state_of_step() {
    local progress
    progress=$(progress_of "$2")
    printf '%s%s' "$1" "${progress:+: $progress}"
}

# step NAME SECONDS COMMAND...: runs a command or a function with its output in $logs/NAME.log, and
# shows that it is running. Returns false if it fails or a command takes longer; 0 seconds set no
# limit. Leaves the seconds it took in $took.
step() {
    local name=$1 limit=$2 log=$logs/$1.log begun=$SECONDS code=0
    shift 2
    mkdir -p "$logs"
    : >"$log"
    ${unwatched:-false} || start_ticker state_of_step "$name" "$log"
    if [ "$limit" -gt 0 ]; then
        timeout --kill-after=10 "$limit" "$@" >"$log" 2>&1 </dev/null || code=$?
    else
        "$@" >"$log" 2>&1 </dev/null || code=$?
    fi
    ${unwatched:-false} || stop_ticker
    took=$((SECONDS - begun))
    [ "$code" -ne 0 ] || return 0
    say "FAILED: $name, after $took s; the end of its output:"
    tail -n 60 "$log"
    say "FAILED: $name; all of its output is in $log"
    return 1
}
