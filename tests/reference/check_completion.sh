#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_completion.sh JOVU_SIM JOVU FOLDER: what bash offers for command lines, by the scripts in
# FOLDER, with two devices attached; and that zsh and fish, where they are installed, can read
# theirs.
set -uo pipefail
if [[ $# -eq 3 ]]; then
    exec "$1" run --devices 2 -- "$0" "$@" inside
fi
jovu_sim=$1 jovu=$2 folder=$3
failed=0
export JOVU_DEVICE=1:3 # chooses for commands; -d can choose another one
PATH=$(dirname "$jovu"):$(dirname "$jovu_sim"):$PATH

"$jovu_sim" ctl 'plug serial=$(touch%20taken)' >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/part.gcode"
cd "$work" || exit 1

source /usr/share/bash-completion/bash_completion
source "$folder/jovu.bash"
source "$folder/jovu-sim.bash"

# offered LINE: what bash offers at its end, sorted, on one line. Splits words as readline does.
offered() {
    local function
    COMP_LINE=$1 COMP_POINT=${#1} COMP_TYPE=9 COMP_KEY=9
    mapfile -t COMP_WORDS < <(grep -oE '[:=]+|[^ :=]+' <<<"$1")
    if [[ $1 == *' ' ]]; then COMP_WORDS+=(''); fi
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    function=$(complete -p "${COMP_WORDS[0]}" | sed 's/.* -F \([^ ]*\) .*/\1/')
    compopt() { :; } # it works during a completion only
    COMPREPLY=()
    "$function" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | xargs
}

# LINE <EXPECTED: what is offered, all of it; with "..." at the end, what it begins with.
while IFS='<' read -r line expected; do
    line=${line%|}
    got=$(offered "$line")
    if [[ $expected == *... ]]; then got=${got:0:$((${#expected} - 3))}...; fi
    if [[ $got != "$expected" ]]; then
        echo "\"$line\": expected \"$expected\", got \"$got\""
        failed=1
    fi
done <<'END'
jovu st|<status
jovu -d 1:2 --json st|<status
jovu --port=1-2 pau|<pause
jovu list --att|<--attached
jovu status --time|<--timeout
jovu -d |<1:2 1:3 1:4
jovu -d 1:|<2 3 4
jovu status --device=1:|<2 3 4
jovu list -s |<JVS001002 JVS001003
jovu --serial JVS001003 --port |<1-2 1-3 1-4
jovu --wait-device |<
jovu push p|<part.gcode
jovu update --yes |<part.gcode
jovu trace 0 --csv |<part.gcode
jovu wait |<device state temperature
jovu wait state |<
jovu help mo|<monitor
jovu call gpio_|<gpio_get_raw gpio_input_get gpio_output_set
jovu call gpio_output_set |<pin= value=
jovu call gpio_output_set pin=1 v|<value=
jovu call gpio_output_set pin=|<
jovu commands bio_get_v|<bio_get_version
jovu-sim |<attach ctl firmware run serve
jovu-sim run --de|<--devices
jovu-sim run --devices 3 -- jovu pau|<pause
jovu-sim attach --speed |<full high
jovu-sim attach -- jovu pau|<pause
jovu-sim serve --li|<--listen
jovu-sim ctl un|<unplug
jovu-sim ctl fault 1:2 fl|<flood
jovu-sim ctl unplug 1:2 f|<
END
if [[ -e taken ]]; then
    echo "a serial number was run as a command"
    failed=1
fi
for program in jovu jovu-sim; do
    ! command -v zsh >/dev/null || zsh -n "$folder/_$program" || failed=1
    ! command -v fish >/dev/null || fish --no-execute "$folder/$program.fish" || failed=1
done
exit "$failed"
