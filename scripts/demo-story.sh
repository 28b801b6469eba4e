#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What demo.sh shows, run inside a simulated bus with one controller on it, at 1:2.
set -euo pipefail

if [[ -t 1 ]]; then bold=$'\033[1m' plain=$'\033[0m'; else bold='' plain=''; fi
tell() { printf '\n%s\n' "$*"; }
show() { printf '%s$ %s%s\n' "$bold" "$1" "$plain"; }
# Runs a command. One that fails ends the story.
carry_out() {
    local status=0
    bash -euo pipefail -c "$1" || status=$?
    if [[ $status -ne 0 ]]; then
        echo "demo: failed with status $status: $1" >&2
        exit 1
    fi
}
# Prints a command and runs it.
run() {
    show "$1"
    carry_out "$1"
}
# As run, while the first command runs in the background.
run_meanwhile() {
    show "($1) &"
    carry_out "$1" &
    run "$2"
    wait $!
}

tell "Which controllers are there, and what are they?"
run "jovu list"
run "jovu info"

tell "What is it doing? For people, and for programs:"
run "jovu status"
run "jovu status --json | jq -c ."

tell "Gcode, line by line; the last one asks for the position:"
run "jovu gcode G28 'M104 S215' 'G1 X20 Y30 F3000' M114"

tell "Any firmware command by its name. The heater gets a target and power, and warms:"
run "jovu call heater_var_set var_num=0 var_val=180"
run "jovu call heater_turn_on"
run "for i in 1 2 3 4; do jovu status --json | jq .extruder_temperature; sleep 0.4; done"

tell "A servo moves 25 mm, and a thousand samples a second tell how well it followed:"
run "jovu trace 0 --seconds 1 --move 25 --csv trace.csv --plot trace.png"
run "head -4 trace.csv"
tell "The picture is build/trace.png."

tell "The firmware speaks without being asked:"
run_meanwhile "sleep 1; jovu-sim ctl event 1:2 the filament runs low >/dev/null" "jovu events --seconds 2"

tell "A print job of $(wc -l <calibration-cube.gcode) lines, pushed and followed to its end:"
run "jovu push calibration-cube.gcode --wait"
run "jovu status"

tell "The controller's side: what was announced, and what arrived?"
run "jovu-sim ctl stats 1:2 | sed 's,^ok ,,' | jq -c '{job: .job | {size, received, verified, state}, protocol_violations}'"

tell "An application of some 70 lines on the library, while somebody pulls the plug:"
run_meanwhile "sleep 2; jovu-sim ctl unplug 1:2 >/dev/null; jovu-sim ctl plug 1:9 >/dev/null" "announce 4"

tell "A new firmware, through the real dfu-util. What counts is what the controller says afterwards:"
run "jovu update --yes ../examples/firmware.bin"

tell "That was the whole story. Next: README.md, or: build/library/bin/jovu --help"
