#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The programs and the simulated firmware on the USB of a real kernel. Runs as root in a system that
# is thrown away, in which vhci-hcd is loaded: scripts/run-in-vm.sh makes one.
#
#   kernel_test.sh FOLDER [REGEX]
#
# FOLDER has the programs. Of the checks below, those run whose names match. Prints a line for each;
# for a failed one also what it printed, and the last messages of the kernel.
set -euo pipefail
programs=$(realpath "$1")
PATH=$programs:$PATH
regex=${2:-}
project=$(cd "$(dirname "$0")/../.." && pwd)
# The processor may be slow and busy. Only a failed check waits that long.
patience=60

equal() { # WHAT EXPECTED ACTUAL
    [[ $2 == "$3" ]] || { printf '%s: expected "%s", got "%s"\n' "$@"; return 1; }
}
exits() { # STATUS COMMAND...: runs it with its standard output in $output, its errors in errors
    local expected=$1 status=0
    shift
    output=$("$@" 2>errors) || status=$?
    equal "exit status of $*" "$expected" "$status" || { echo "$output"; cat errors; return 1; }
}
eventually() { # COMMAND...
    local began=$SECONDS
    until "$@" >/dev/null; do
        ((SECONDS - began < patience)) || { echo "not within $patience s: $*"; return 1; }
        sleep 0.1
    done
}
jovu() { command jovu --wait-device "$patience" "$@"; }
ends() { # STATUS PROCESS: ends a program that was started in the background
    local status=0
    kill -TERM "$2"
    wait "$2" || status=$?
    equal "exit status" "$1" "$status"
}
sim() { jovu-sim ctl "$@" | sed 's/^ok *//'; }
stat_of() { sim stats "$1" | jq -c "$2"; } # PORT FILTER
plug() {
    local port
    for port; do sim plug "$port" >/dev/null; done
    for port; do eventually test -e "/sys/bus/usb/devices/$port:1.1"; done
    udevadm settle
}
unplug() {
    sim unplug "$1"
    eventually test ! -e "/sys/bus/usb/devices/$1"
}
node() { printf '/dev/bus/usb/%03d/%03d' "$(cat "/sys/bus/usb/devices/$1/busnum")" \
    "$(cat "/sys/bus/usb/devices/$1/devnum")"; }

hot_plug() {
    plug 1-1
    announce >told &
    eventually grep 'is here: serial JVS001001' told
    plug 1-2
    eventually grep 'is here: serial JVS001002' told
    unplug 1-1
    eventually grep 'is gone' told
    plug 1-1
    eventually eval '[[ $(grep -c "is here: serial JVS001001" told) -eq 2 ]]'
    ends 0 $!
    equal "lines" 4 "$(wc -l <told)"
}

every_command() {
    plug 1-1
    jovu commands --json | jq -c '[.[] | select(.name != "Enter_dfu_mode")]' >commands
    jq -r '.[] | ".call " + .name + ([.arguments[] | " " + .key + "=" +
        if .kind == "structure" then "{}" elif .kind == "boolean" then "0"
        elif .kind == "text" then "G28" else "1" end] | join(""))' commands >lines
    jovu shell --json <lines >responses
    local types='{"nothing":"null","integer":"number","text":"string","structure":"object"}'
    jq -c --argjson types "$types" \
        '.[] | [.name, .index, ($types[.result.kind] // .result.kind)]' commands >expected
    # Debug events come between the results.
    jq -c 'select(.command) | [.command, .index, (.result | type)]' responses >actual
    diff expected actual
    equal "protocol violations" 0 "$(stat_of 1-1 .protocol_violations.count)"
}

events() {
    plug 1-1
    command jovu events --json >told &
    eventually eval 'sim event 1-1 "the filament runs low"; grep "the filament runs low" told'
    ends 130 $!
}

push() {
    plug 1-1
    head -c 150000 /dev/urandom | base64 >job
    exits 0 jovu push job
    equal "job" "[true,$(wc -c <job)]" "$(stat_of 1-1 '.job | [.verified, .received]')"
}

unplug_in_a_push() {
    plug 1-1
    head -c 150000 /dev/urandom | base64 >job
    sim fault 1-1 unplug-at 04 100000
    exits 5 jovu push job
    eventually test ! -e /sys/bus/usb/devices/1-1
    plug 1-1
    exits 0 jovu info
    exits 0 jovu push job
    equal "job" "[true,$(wc -c <job)]" "$(stat_of 1-1 '.job | [.verified, .received]')"
}

# The kernel takes the interfaces from their program, which then has to open the device anew.
bus_reset() {
    plug 1-1
    announce >told &
    eventually grep 'is here' told
    local usbdevfs_reset=0x5514
    perl -e 'open(NODE, "+<", $ARGV[0]) && defined(ioctl(NODE, hex($ARGV[1]), 0)) || die $!' \
        "$(node 1-1)" "$usbdevfs_reset"
    eventually eval '[[ $(grep -c "is here" told) -eq 2 ]]'
    ends 0 $!
    equal "lines" 3 "$(wc -l <told)"
    equal "resets" 1 "$(stat_of 1-1 .resets)"
    exits 0 jovu info
}

two_controllers() {
    plug 1-1 1-2
    head -c 150000 /dev/urandom | base64 >job
    command jovu --port 1-1 push job >pushed 2>&1 &
    exits 0 jovu --port 1-2 gcode G28 M114
    exits 0 jovu --port 1-2 push "$project/README.md"
    wait $! || { cat pushed; return 1; }
    local filter='[.job.verified, .job.received, (.message.gcode | length)]'
    equal "first" "[true,$(wc -c <job),0]" "$(stat_of 1-1 "$filter")"
    equal "second" "[true,$(wc -c <"$project/README.md"),2]" "$(stat_of 1-2 "$filter")"
}

killed_in_a_trace() {
    plug 1-1
    mkfifo lines told
    exec 3<>lines 4<>told # keeps them open
    command jovu shell --json <lines >told 3>&- 4>&- &
    echo '.call servo_dc_trace_enable servo_name=0 enable=1' >&3
    local line=
    until [[ $line == *servo_dc_trace_event* ]]; do read -r -t "$patience" line <&4; done
    kill -KILL $!
    wait $! || true
    eventually eval '[[ $(stat_of 1-1 .endpoints.\"81\".in_flight) -eq 0 ]]'
    local made
    made=$(stat_of 1-1 .message.events)
    sleep 1
    equal "samples without a program" "$made" "$(stat_of 1-1 .message.events)"
    # Samples come faster than this processor can take them, and delay the response behind them.
    exits 0 jovu --timeout 150 call servo_dc_trace_enable servo_name=0 enable=0
    exits 0 jovu call --json bio_get_serial
    equal "serial number" '"JVS001001"' "$(jq .result <<<"$output")"
}

# With the rule for udev, members of plugdev can use controllers and write their firmware.
udev_rule_and_update() {
    local member=(setpriv --reuid=nobody --regid=nogroup --groups=plugdev)
    cp "$project/packaging/70-jovu.rules" /etc/udev/rules.d/
    udevadm control --reload
    plug 1-1
    equal "node" "660 plugdev" "$(stat -c '%a %G' "$(node 1-1)")"
    exits 3 setpriv --reuid=nobody --regid=nogroup --clear-groups jovu info
    grep 'no permission' errors
    jovu-sim firmware 2.1.0 >image
    exits 0 "${member[@]}" jovu --wait-device "$patience" update --yes image
    exits 0 "${member[@]}" jovu --wait-device "$patience" info --json
    equal "version" '"2.1.0"' "$(jq .version <<<"$output")"
}

high_speed() {
    head -c 150000 /dev/urandom | base64 >job
    exits 0 jovu-sim attach --speed high -- sh -c 'jovu --wait-device 60 push job
        cat /sys/bus/usb/devices/1-1/speed; jovu-sim ctl stats 1-1'
    equal "Mbit/s" 480 "$(tail -n 2 <<<"$output" | head -n 1)"
    equal "job" true "$(tail -n 1 <<<"$output" | sed 's/^ok //' | jq .job.verified)"
}

if [[ ${3:-} != attached ]]; then
    cd "$(mktemp -d)"
    chmod 711 .
    exec jovu-sim attach --empty -- "$project/tests/kernel/kernel_test.sh" "$programs" "$regex" attached
fi

failures=0
for check in hot_plug every_command events push unplug_in_a_push bus_reset two_controllers \
    killed_in_a_trace udev_rule_and_update high_speed; do
    [[ $check =~ $regex ]] || continue
    began=$SECONDS status=0
    dmesg --clear
    # Without "||" behind the parentheses, so that the first failure in them ends them.
    set +e
    (set -e; trap 'jobs -p | xargs -r kill' EXIT; mkdir "$check"; cd "$check"; "$check") \
        >"$check.log" 2>&1
    status=$?
    set -e
    complaints=$(dmesg | grep -E 'BUG|WARNING:|Oops|cannot find a urb' || true)
    if [[ $status -eq 0 && -z $complaints ]]; then
        printf 'ok      %s (%d s)\n' "$check" $((SECONDS - began))
    else
        printf 'FAILED  %s (%d s), status %d\n' "$check" $((SECONDS - began)) "$status"
        sed 's/^/    /' "$check.log"
        printf '    the kernel:\n%s\n' "$complaints"
        dmesg | grep -v 'vhci_hcd: u' | tail -n 20 | sed 's/^/    /'
        failures=$((failures + 1))
    fi
    for port in 1-1 1-2; do jovu-sim ctl unplug "$port" >/dev/null 2>&1 || true; done
    eventually test ! -e /sys/bus/usb/devices/1-1 -a ! -e /sys/bus/usb/devices/1-2
done
exit $((failures > 0))
