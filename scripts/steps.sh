# Runs the steps of a script one after another. Sourced by test.sh and demo.sh, not run.
#
# Each step's full output goes to a log of its own in build/logs. Standard output gets one line a
# step; on a terminal that line shows the newest line of the log while the step runs.
# shellcheck shell=bash

step_log_dir=build/logs
step_tail_lines=60
declare -a step_failed=()

# Prints standard input line by line over itself, cut to the terminal's width, under $1.
step_show_live() {
    local label=$1 line columns
    columns=$(stty size 2>/dev/null </dev/tty | cut -d' ' -f2) || columns=80
    while IFS= read -r line; do
        line=${line//[[:cntrl:]]/ }
        printf '\r\033[K%-28s %s' "$label" "${line:0:$((${columns:-80} - 30))}"
    done
    printf '\r\033[K'
}

# step LABEL COMMAND...: runs COMMAND with its output in the log of that label, and prints one line
# that says how it went; on failure also the end of the log. Returns COMMAND's status.
step() {
    local label=$1 log status=0 began=$SECONDS
    shift
    log=$step_log_dir/${label// /-}.log
    mkdir -p "$step_log_dir"
    if [[ -t 1 ]]; then
        # A pipeline in the foreground, so that Ctrl-C reaches the command.
        (set -o pipefail; "$@" </dev/null 2>&1 | tee "$log" | step_show_live "$label") || status=$?
    else
        "$@" </dev/null >"$log" 2>&1 || status=$?
    fi
    if [[ $status -eq 0 ]]; then
        printf '%-28s ok      %4d s\n' "$label" $((SECONDS - began))
    else
        printf '%-28s FAILED  %4d s   (status %d, %s)\n' \
            "$label" $((SECONDS - began)) "$status" "$log"
        # The progress of a build, and the tests that passed, are not what one looks for then.
        grep -avE '^\[[0-9]+/[0-9]+\] |^ *Start +[0-9]+: | Passed +[0-9.]+ sec$' "$log" |
            tail -n "$step_tail_lines" | sed 's/^/    /'
        step_failed+=("$label")
    fi
    return "$status"
}
