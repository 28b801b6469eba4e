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
PATH=$(cd "$1" && pwd):$PATH
regex=${2:-}
project=$(cd "$(dirname "$0")/../.." && pwd)
# The processor may be slow and busy. Only a failed check waits that long.
patience=60

equal() { # WHAT EXPECTED ACTUAL
    [[ $2 == "$3" ]] || { printf '%s: expected "%s", got "%s"\n' "$@"; return 1; }
}
# STATUS COMMAND...: runs it with its output in $output.
exits() {
    local expected=$1 status=0
    shift
    output=$("$@" 2>&1) || status=$?
    [[ $status -eq $expected ]] || {
        printf '%s: expected exit status %d, got %d:\n%s\n' "$*" "$expected" "$status" "$output"
        return 1
    }
}
eventually() { # COMMAND...
    local began=$SECONDS
    until "$@" >/dev/null; do
        ((SECONDS - began < patience)) || { echo "not within $patience s: $*"; return 1; }
        sleep 0.1
    done
}
never_left() { [[ ! -e $1 ]]; }
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
    kill -TERM $!
    wait $!
    equal "lines" 4 "$(wc -l <told)"
}

every_command() {
    plug 1-1
    # One line each, with values that every firmware takes.
    jovu commands --json | jq -c '[.[] | select(.name != "Enter_dfu_mode")]' >commands
    jq -r '.[] | ".call " + .name + ([.arguments[] | " " + .key + "=" +
        if .kind == "structure" then "{}" elif .kind == "boolean" then "0"
        elif .kind == "text" then "G28" else "1" end] | join(""))' commands >lines
    jovu shell --json <lines >responses
    local types='{"nothing":"null","integer":"number","text":"string","structure":"object"}'
    equal "responses" "$(jq -c --argjson types "$types" \
        '.[] | [.name, .index, ($types[.result.kind] // .result.kind)]' commands)" \
        "$(jq -c '[.command, .index, (.result | type)]' responses)"
    equal "protocol violations" 0 "$(stat_of 1-1 .protocol_violations.count)"
}

events() {
    plug 1-1
    jovu events --json >told &
    eventually eval 'sim event 1-1 "the filament runs low"; grep "the filament runs low" told'
    kill -TERM $!
    exits 130 wait $!
    exits 0 jovu trace 0 --seconds 1 --move 5 --json
    equal "trace" true "$(jq '.samples > 100 and .position.highest > 0' <<<"$output")"
}

push() {
    plug 1-1
    head -c 300000 /dev/urandom | base64 >job
    exits 0 jovu push job --wait
    equal "job" "[true,$(wc -c <job),$(python3 -c \
        'import zlib; print(zlib.adler32(open("job", "rb").read()))')]" \
        "$(stat_of 1-1 '.job | [.verified, .received, .computed]')"
}

unplug_in_a_push() {
    plug 1-1
    head -c 1000000 /dev/zero | tr '\0' ';' >job
    sim fault 1-1 unplug-at 04 200000
    exits 5 jovu push job
    eventually test ! -e /sys/bus/usb/devices/1-1
    plug 1-1
    exits 0 jovu info
}

bus_reset() {
    plug 1-1
    announce >told &
    eventually grep 'is here' told
    python3 -c 'import fcntl, sys; fcntl.ioctl(open(sys.argv[1], "wb"), 0x5514)' "$(node 1-1)"
    sleep 3; cat told; dmesg | tail -20
    kill -TERM $!
    wait $!
    exits 0 jovu info
}

two_controllers() {
    plug 1-1 1-2
    head -c 300000 /dev/urandom | base64 >job
    jovu --port 1-1 push job >pushed 2>&1 &
    exits 0 jovu --port 1-2 trace 0 --seconds 1 --json
    equal "trace" true "$(jq '.samples > 100' <<<"$output")"
    wait $! || { cat pushed; return 1; }
    equal "push" '[true,0]' "$(stat_of 1-1 '[.job.verified, .message.commands.servo_dc_trace_enable // 0]')"
    equal "trace" '[0,2]' "$(stat_of 1-2 '[.job.pushes, .message.commands.servo_dc_trace_enable]')"
}

killed_in_a_trace() {
    plug 1-1
    jovu trace 0 >/dev/null &
    eventually eval '[[ $(stat_of 1-1 .message.events) -gt 100 ]]'
    kill -KILL $!
    wait $! || true
    local made
    made=$(stat_of 1-1 .message.events)
    sleep 1
    equal "samples without a program" "$made" "$(stat_of 1-1 .message.events)"
    exits 0 jovu info
    exits 0 jovu trace 0 --seconds 1 --json
    equal "trace" true "$(jq '.samples > 100' <<<"$output")"
}

update() {
    plug 1-1
    jovu-sim firmware 2.1.0 >image
    exits 0 jovu update --yes image
    exits 0 jovu info --json
    equal "version" '"2.1.0"' "$(jq .version <<<"$output")"
}

udev_rule() {
    cp "$project/packaging/70-jovu.rules" /etc/udev/rules.d/
    udevadm control --reload
    plug 1-1
    equal "node" "660 plugdev" "$(stat -c '%a %G' "$(node 1-1)")"
    local outside=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
    exits 0 setpriv --reuid=nobody --regid=nogroup --groups=plugdev jovu info
    exits 3 "${outside[@]}" jovu info
    echo "$output" | grep permission
}

if [[ ${3:-} != attached ]]; then
    work=$(mktemp -d)
    cd "$work"
    exec jovu-sim attach --empty -- "$project/tests/kernel/kernel_test.sh" "$1" "$regex" attached
fi

failures=0
for check in hot_plug every_command events push unplug_in_a_push bus_reset two_controllers \
    killed_in_a_trace update udev_rule; do
    [[ $check =~ $regex ]] || continue
    began=$SECONDS status=0
    dmesg --clear
    # Without "||" behind the parentheses, so that the first failure in them ends them.
    set +e
    (set -e; "$check") >"$check.log" 2>&1
    status=$?
    set -e
    complaints=$(dmesg | grep -E 'BUG|WARNING:|Oops|cannot find a urb' || true)
    if [[ $status -eq 0 && -z $complaints ]]; then
        printf 'ok      %s (%d s)\n' "$check" $((SECONDS - began))
    else
        printf 'FAILED  %s (%d s), status %d\n' "$check" $((SECONDS - began)) "$status"
        sed 's/^/    /' "$check.log"
        echo "    the kernel:"
        dmesg | tail -n 20 | sed 's/^/    /'
        failures=$((failures + 1))
    fi
    for port in 1-1 1-2; do jovu-sim ctl unplug "$port" >/dev/null 2>&1 || true; done
    eventually test ! -e /sys/bus/usb/devices/1-1 -a ! -e /sys/bus/usb/devices/1-2
done
exit $((failures > 0))
