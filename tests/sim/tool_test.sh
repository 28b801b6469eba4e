#!/bin/sh
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
check "too many devices" 2 "$(status "$sim" run --devices 101 -- true)"
check "no speed" 2 "$(status "$sim" run --speed 0 -- true)"
check "ctl outside" 2 "$(env -u JOVU_SIM_CONTROL sh -c '"$sim" ctl list >/dev/null 2>&1; echo $?')"
check "bus in a bus" 125 "$(status "$sim" run -- "$sim" run -- true)"

check "standard input" "hello" "$(echo hello | "$sim" run -- cat)"
check "arguments" "-- --devices 3 -x" "$("$sim" run -- echo -- --devices 3 -x)"
check "what is preloaded stays in front" "libm.so.6:libumockdev-preload.so.0" \
    "$(LD_PRELOAD=libm.so.6 "$sim" run -- sh -c 'echo $LD_PRELOAD')"
check "limit of open files" "$(ulimit -n)" "$("$sim" run -- sh -c 'ulimit -n')"
check "a working directory with a blank" "$work/a b" \
    "$(cd "$work/a b" && "$sim" run -- sh -c '"$sim" ctl list >/dev/null && pwd')"
check "a long directory for temporary files" "$work" \
    "$(TMPDIR=$work "$sim" run -- sh -c '"$sim" ctl list >/dev/null && echo $TMPDIR')"

check "one device" "ok 1:2 product=0002 serial=JVS001002 clients=0" \
    "$("$sim" run -- "$sim" ctl list)"
check "three devices" 3 "$("$sim" run --devices 3 -- "$sim" ctl list | grep -o product | wc -l)"
check "addresses are not used again at once" "ok 1:4" \
    "$("$sim" run --devices 2 -- sh -c '"$sim" ctl unplug 1:3 >/dev/null; "$sim" ctl plug')"
check "product id" "ok 1:2 product=0003 serial=JVS001002 clients=0" \
    "$("$sim" run --empty -- sh -c '"$sim" ctl plug product=3 >/dev/null; "$sim" ctl list')"
check "a refusal" 1 "$("$sim" run -- sh -c '"$sim" ctl unplug 1:9 >/dev/null; echo $?')"

check "no version" 125 "$(status "$sim" firmware "")"

# A signal for the simulator is one for the program; the simulator waits for what it does with it.
"$sim" run -- sh -c 'trap "exit 5" TERM; echo >"$work/up"; while :; do sleep 0.05; done' &
pid=$!
wait_for "$work/up"
kill -TERM $pid
wait $pid
check "a signal is passed on" 5 $?

# Neither survives the other.
"$sim" run -- sh -c 'echo $$ >"$work/child"; exec sleep 60' &
pid=$!
wait_for "$work/child"
kill -KILL $pid
wait $pid 2>/dev/null
child=$(cat "$work/child")
tries=0
while [ -d "/proc/$child" ] && ! grep -q '^State:.Z' "/proc/$child/status" && [ $tries -lt 50 ]; do
    sleep 0.1
    tries=$((tries + 1))
done
check "the program dies with the simulator" no "$([ $tries -lt 50 ] && echo no || echo yes)"
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
