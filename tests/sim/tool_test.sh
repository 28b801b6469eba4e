#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# jovu-sim as a process: what it passes on, how it ends, what it leaves behind.
#
#   tool_test.sh JOVU_SIM WORK_DIR
set -u
sim=$1
work=$2/tool_test.$$
mkdir -p "$work/a b"
TMPDIR=$(mktemp -d /tmp/jst.XXXXXX)
export TMPDIR sim work
trap 'rm -rf "$work" "$TMPDIR"' EXIT
failures=0

# check WHAT EXPECTED ACTUAL
check() {
    if [ "$2" = "$3" ]; then
        echo "ok: $1"
    else
        echo "FAILED: $1: expected \"$2\", got \"$3\""
        failures=$((failures + 1))
    fi
}
# status COMMAND...: its exit status, output thrown away
status() { "$@" >/dev/null 2>&1; echo $?; }
testbeds() { find "$TMPDIR" -maxdepth 1 -name 'umockdev.*' | wc -l; }
wait_for() {
    tries=0
    until [ -s "$1" ] || [ $tries -eq 100 ]; do sleep 0.1; tries=$((tries + 1)); done
}

check "exit status" 7 "$(status "$sim" run -- sh -c 'exit 7')"
check "death by a signal" 134 "$(status "$sim" run -- sh -c 'ulimit -c 0; kill -ABRT $$')"
check "no such program" 127 "$(status "$sim" run -- /nowhere/to/be/found)"
check "no program at all" 126 "$(status "$sim" run -- /etc/passwd)"
check "no command line" 2 "$(status "$sim" run)"
check "no such number" "2222222" "$(for no in "run --devices 101" "run --time-scale 0" "run --time-scale nan" \
    "run --time-scale 2000000" "run --empty --devices 1" "firmware 1 --size 0" "firmware 1 --size 99999999"
    do status "$sim" $no -- true; done | tr -d '\n')"
for file in /nowhere/x /dev/full "$work" ""; do
    check "a capture in \"$file\"" "125 jovu-sim: cannot write the capture \"$file\"" \
        "$("$sim" run --capture "$file" -- true 2>&1 | sed "s/: [^:]*\$//; s/^/$(status "$sim" run --capture "$file" -- true) /")"
done
check "ctl outside" 2 "$(env -u JOVU_SIM_CONTROL sh -c '"$sim" ctl list >/dev/null 2>&1; echo $?')"
check "ctl elsewhere" 2 "$(export JOVU_SIM_CONTROL=/nowhere; status "$sim" ctl list)"
check "ctl help" "0 Requests:" "$("$sim" ctl --help | grep -x Requests: | sed "s/^/$? /")"
check "bus in a bus" 125 "$(status "$sim" run -- "$sim" run -- true)"

check "standard input" "hello" "$(echo hello | "$sim" run -- cat)"
check "arguments" "-- --devices 3 -x" "$("$sim" run -- echo -- --devices 3 -x)"
check "what is preloaded stays in front" "libm.so.6:libumockdev-preload.so.0" \
    "$(LD_PRELOAD=libm.so.6 "$sim" run -- sh -c 'echo $LD_PRELOAD')"
check "signal settings" "$(grep -E 'Sig(Blk|Ign)' /proc/self/status)" \
    "$("$sim" run -- grep -E 'Sig(Blk|Ign)' /proc/self/status)"
check "timer slack" 1 "$("$sim" run -- sh -c 'cat /proc/$$/timerslack_ns')"
check "limit of open files" "$(ulimit -n)" "$("$sim" run -- sh -c 'ulimit -n')"
check "a working directory with a blank" "$work/a b" \
    "$(cd "$work/a b" && "$sim" run -- sh -c '"$sim" ctl list >/dev/null && pwd')"
check "a long directory for temporary files" "$work" \
    "$(TMPDIR=$work "$sim" run -- sh -c '"$sim" ctl list >/dev/null && echo $TMPDIR')"

check "one device" "ok 1:2 product=0002 serial=JVS001002 clients=0" \
    "$("$sim" run -- "$sim" ctl list)"
check "addresses are not used again at once" "ok 1:5" \
    "$("$sim" run --devices 3 -- sh -c '"$sim" ctl unplug 1:4 >/dev/null; "$sim" ctl plug')"
check "statuses of requests" "0 0 1 2" "$("$sim" run -- sh -c '
    for request in list "unplug 1:2" "unplug 1:9" "list
list"; do "$sim" ctl "$request" >/dev/null 2>&1; echo $?; done' | tr '\n' ' ' | sed 's/ $//')"

# RESPONSE <= REQUEST | REQUEST...: each request has that response; @ is its last word.
cat >"$work/requests" <<'END'
ok 1:2 <= plug
ok 1:5 <= plug 1:5 serial=JVS001003
ok 1:3 <= plug name=%c3%A4 product=00df
ok 1:4 <= plug serial=%41%7e%20b
ok 1:6 <= plug product=ffff vendor=FFFF
ok 127:127 <= plug 127:127
error a device is plugged in at 1:2 <= plug 1:2
error unexpected "1:8" <= plug 1:7 1:8
error "10000" is not a hexadecimal number from 0 to ffff <= plug product=10000
error "" is not a hexadecimal number from 0 to ffff <= plug vendor= | plug product
error "@" is not a valid BUS:ADDR: both are numbers from 1 to 127 <= plug 0:1 | stats 0:1 | plug 1:0 | unplug 1:0 | plug 1:128 | plug 128:1 | plug 1 | plug :1 | plug 1:1x
error DEVICE is missing <= unplug | fault
error the serial number "%7f" is not printable ASCII <= plug serial=%7f
error the serial number "%1f" is not printable ASCII <= plug serial=%1f
error "4" is not a pair of hexadecimal digits <= plug serial=%4 | send 1:2 job 004
error "%" is not a pair of hexadecimal digits <= plug serial=%
error "zz" is not a pair of hexadecimal digits <= send 1:2 job zz00
error "" must have 1 to 126 characters <= plug name=
error unexpected "x" <= unplug 1:5 x | replug 1:5 x | list x | stats 1:2 x | send 1:2 job 00 x | heater 1:2 plug x | gpio 1:2 0 0 x | fault 1:2 claim EIO 1 1 x | fault 1:2 open x | fault 1:2 silent 1 x | fault 1:2 drop 1 x | fault 1:2 delay 0 x | fault 1:2 corrupt id 1 x | fault 1:2 split 1 x | fault 1:2 deep 1 x | fault 1:2 flood job 1 x | fault 1:2 garbage job 1 x | fault 1:2 unplug-at 02 0 x | fault 1:2 dfu keep-firmware x | fault 1:2 clear x
error no device at 1:9 <= unplug 1:9 | fault 1:9 open
error "jobs" is not a channel: use message or job <= send 1:2 jobs 00
error N "8" is not a number from 0 to 7 <= gpio 1:2 8 1
error level "2" is not a number from 0 to 1 <= gpio 1:2 7 2
error "off" is neither plug nor unplug <= heater 1:2 off
error the device at 1:3 is in DFU mode <= heater 1:3 plug
error ERRNO "ENO" is not the name of an errno, such as EPIPE <= fault 1:2 claim ENO
error COUNT "@" is not a number from 1 to 4294967294 <= fault 1:2 claim EIO 0 | fault 1:2 silent 4294967295
error SKIP "4294967296" is not a number from 0 to 4294967295 <= fault 1:2 claim EIO 1 4294967296
error EP "100" is not a valid endpoint address, such as 81 or 02 <= fault 1:2 never 100
error EP "ff" is not an endpoint of the device <= fault 1:2 never FF
error EP must be an OUT endpoint <= fault 1:2 unplug-at 81 1
error MS "3600001" is not a number from 0 to 3600000 <= fault 1:2 delay 3600001
error N "@" is not a number from 1 to 64 <= fault 1:2 split 65 | fault 1:2 split 0
error "ids" is not one of check, terminator, json, attrs, id, truncate <= fault 1:2 corrupt ids
error BLOCK is missing <= fault 1:2 dfu write-error | fault 1:2 dfu unplug-at
error STRING is missing <= fault 1:2 dfu serial
error unknown dfu fault "x" <= fault 1:2 dfu x
error unknown fault "x" <= fault 1:2 x
error FAULT is missing <= fault 1:2
error unknown request "x" <= x
ok <= event 1:2 | gpio 1:2 7 1 | heater 1:2 unplug | fault 1:2 claim EHWPOISON always 4294967295 | fault 1:2 clear | fault 1:3 clear
ok 1:2 product=0002 serial=JVS001002 clients=0, 1:3 product=00df serial=JVS001003A clients=0, 1:4 product=0002 serial=A~ b clients=0, 1:5 product=0002 serial=JVS001003 clients=0, 1:6 product=ffff serial=JVS001006 clients=0, 127:127 product=0002 serial=JVS127127 clients=0 <= list
ok <= unplug 1:5 | replug 1:4 | replug 1:6 | unplug 127:127
ok 1:2 product=0002 serial=JVS001002 clients=0, 1:3 product=00df serial=JVS001003A clients=0, 1:4 product=0002 serial=JVS001004 clients=0, 1:6 product=ffff serial=JVS001006 clients=0 <= list
END
check "requests and responses" "" "$("$sim" run --empty -- sh -c '
    while IFS= read -r line; do
        rest="${line#* <= } | "
        while [ -n "$rest" ]; do
            request=${rest%%" | "*}
            expected=${line%%" <= "*}
            case $expected in *@*) expected=${expected%%@*}${request##* }${expected#*@} ;; esac
            response=$("$sim" ctl "$request" 2>&1 </dev/null)
            [ "$response" = "$expected" ] || echo "$request: $response"
            rest=${rest#*" | "}
        done
    done' <"$work/requests")"
check "gpio and heater" '"inputs":[0,0,0,0,0,0,0,1] "plugged":false' "$("$sim" run -- sh -c '
    "$sim" ctl gpio 1:2 7 1 && "$sim" ctl heater 1:2 plug && "$sim" ctl heater 1:2 unplug &&
        "$sim" ctl stats 1:2' | grep -oE '"(inputs":[^]]*]|plugged":[a-z]*)' | sort | tr '\n' ' ' | sed 's/ $//')"
# The last byte of the longest directory that is used; a longer one, none and others are not.
where() { "$@" "$sim" run -- sh -c 'dirname "$(dirname "$JOVU_SIM_CONTROL")"'; }
mkdir "${long=$(printf '%s%.*s' "$TMPDIR/" $((31 - ${#TMPDIR})) xxxxxxxxxxxxxxxxxxxxxxxxxxxxx)}" "${long}x"
check "directory" "$long /tmp /tmp /tmp /tmp" "$(echo $(where env TMPDIR="$long") \
    $(where env TMPDIR="${long}x") $(where env -u TMPDIR) $(where env TMPDIR=.) $(where env TMPDIR=/no))"


# A signal for the simulator is one for the program; the simulator waits for what it does with it.
"$sim" run -- sh -c 'trap "exit 5" TERM; echo >"$work/up"; while :; do sleep 0.05; done' &
pid=$!
wait_for "$work/up"
kill -TERM $pid
wait $pid
check "a signal is passed on" 5 $?

# Neither survives the other: the program holds the pipe open.
mkfifo "$work/pipe"
"$sim" run -- sh -c 'echo >"$work/child"; exec sleep 60' >"$work/pipe" &
pid=$!
exec 3<"$work/pipe"
wait_for "$work/child"
kill -KILL $pid
wait $pid 2>/dev/null
check "the program dies with the simulator" 0 "$(timeout 5 cat <&3; echo $?)"
exec 3<&-
check "a killed simulator leaves its directory" 1 "$(testbeds)"

# Those of others and of simulators that run are not touched.
mkdir "$TMPDIR/umockdev.ABCDEF"
"$sim" run -- sh -c 'echo >"$work/running"; sleep 3' &
running=$!
wait_for "$work/running"
check "the next one removes it" "ok" "$("$sim" run -- "$sim" ctl unplug 1:2)"
check "and nothing else" 2 "$(testbeds)"
wait $running
check "a simulator that ends leaves nothing" 1 "$(testbeds)"

[ $failures -eq 0 ]
