# SPDX-License-Identifier: Apache-2.0
#
# Runs the steps of a script one after another. Sourced by test.sh and demo.sh, not run.
#
# Each step's full output goes to a log of its own in build/logs. Standard output gets one line a
# step; on a terminal that line shows the newest line of the log while the step runs.
# shellcheck shell=bash

step_log_dir=build/logs
step_tail_lines=60
step_cannot_run=77 # status of a command that this system cannot run; its last line says why
declare -a step_failed=() step_not_run=()

# Prints the line of a step that has ended: LABEL LOG SECONDS STATUS. On failure also the end of the
# log. Returns STATUS, and 0 for a step that cannot run here.
step_report() {
    local label=$1 log=$2 seconds=$3 status=$4
    if [[ $status -eq 0 ]]; then
        printf '%-28s ok      %4d s\n' "$label" "$seconds"
    elif [[ $status -eq $step_cannot_run ]]; then
        step_not_run+=("$label: $(tail -n 1 "$log")")
        printf '%-28s NOT RUN: %s\n' "$label" "$(tail -n 1 "$log")"
        return 0
    else
        printf '%-28s FAILED  %4d s   (status %d, %s)\n' "$label" "$seconds" "$status" "$log"
        # The progress of a build, and the tests that passed, are not what one looks for then.
        grep -avE '^\[[0-9]+/[0-9]+\] |^ *Start +[0-9]+: | Passed +[0-9.]+ sec$' "$log" |
            tail -n "$step_tail_lines" | sed 's/^/    /'
        step_failed+=("$label")
    fi
    return "$status"
}

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
    step_report "$label" "$log" $((SECONDS - began)) "$status"
}

# step_begin LABEL COMMAND...: the same in the background. step_end LABEL waits for it and prints its
# line; without a label it does so for all. A process group of its own for each, so that an interrupt
# ends all of it.
declare -A step_begun=() # process ids by label
step_begin() {
    local label=$1 log=$step_log_dir/${1// /-}.log
    shift
    mkdir -p "$step_log_dir"
    set -m
    (began=$SECONDS status=0
     "$@" || status=$?
     echo $((SECONDS - began)) >"$log.seconds"
     exit "$status") </dev/null >"$log" 2>&1 &
    step_begun[$label]=$!
    set +m
}
step_end() {
    local label log status=0
    [[ $# -gt 0 ]] || set -- "${!step_begun[@]}"
    for label; do
        [[ -n $label && -n ${step_begun[$label]:-} ]] || continue
        log=$step_log_dir/${label// /-}.log status=0
        wait "${step_begun[$label]}" || status=$?
        unset "step_begun[$label]"
        step_report "$label" "$log" "$(cat "$log.seconds")" "$status" || true
    done
}
step_abandon() {
    local pid
    for pid in "${step_begun[@]}"; do kill -- "-$pid" 2>/dev/null || true; done
}
