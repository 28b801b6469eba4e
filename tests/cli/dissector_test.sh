#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# What Wireshark shows of a session on the simulated bus, with the dissector of this project.
#
#   dissector_test.sh JOVU_SIM JOVU SOURCE_DIR WORK_DIR
set -u
sim=$1 jovu=$2 source=$3
work=$(mktemp -d "$4/dissector_test.XXXXXX")
export sim jovu work HOME=$work XDG_CONFIG_HOME=$work # no other preferences and plugins
trap 'rm -rf "$work"' EXIT
failures=0
for program in tshark editcap; do
    command -v $program >/dev/null && continue
    echo "FAILED: $program is not there (scripts/install-packages.sh test)"
    exit 1
done

# check WHAT ACTUAL: standard input is what is expected.
check() {
    if diff - <(echo "$2") >"$work/diff"; then
        echo "ok: $1"
    else
        echo "FAILED: $1"
        cat "$work/diff"
        failures=$((failures + 1))
    fi
}

# dissect FILE ARGUMENT...: tshark's output, and what it says of a dissector that cannot be loaded.
dissect() {
    tshark -2 -X "lua_script:$source/packaging/wireshark/jovu.lua" -r "$@" 2>"$work/errors"
    grep -v 'Running as user "root"' "$work/errors"
}

# fields FILE FILTER FIELD...: a line for each packet that the filter selects.
fields() {
    local file=$1 filter=$2
    shift 2
    dissect "$file" -Y "$filter" -T fields -E 'separator=|' "${@/#/-e}"
}

# The event and the rest wait in the device for the first program.
seq 1 1500 >"$work/job"
"$sim" run --capture "$work/session" --time-scale 1000 -- sh -e -c '
    "$sim" ctl event 1:2 "caf$(printf "\303\251") \"\\"
    "$jovu" call heater_var_set var_num=0 var_val=21.5
    "$jovu" call servo_dc_name_str_get servo_name=1
    "$sim" ctl fault 1:2 corrupt id
    "$jovu" call servo_dc_move_default --timeout 0.1 || :
    "$jovu" push "$work/job"
    "$jovu" status' >"$work/out" 2>&1 || failures=1

check "an event" "$(fields "$work/session" 'jovu.kind == "event"' jovu.{attrs,id,name,args,text})" <<'END'
request oneway|1073741824|debug_event|{"text":[99,97,102,-61,-87,32,34,92,0]}|café "\
END
# Ids begin at a random number: each is replaced by how many there were before.
check "requests and responses" "$(fields "$work/session" 'jovu.kind and jovu.kind != "event"' \
    jovu.{id,kind,attrs,idx,name,args,result,text} |
    awk -F'|' -v OFS='|' '{ if (!($1 in ids)) ids[$1] = ++count; $1 = ids[$1]; print }')" <<'END'
1|request|request twoway|16|heater_var_set|{"var_num":0,"var_val":21.5}||
1|response|response|16|heater_var_set|{"var_num":0,"var_val":21.5}|0|
2|request|request twoway|48|servo_dc_name_str_get|{"servo_name":1}||
2|response|response|48|servo_dc_name_str_get|{"servo_name":1}|[89,0]|Y
3|request|request twoway|32|servo_dc_move_default|||
4|response|response|32|servo_dc_move_default||{"move_type":0,"start_sync":0,"target":0.0,"distance":0.0,"speed_f":50.0,"accel_f":1000.0,"decel_f":1000.0,"max_cycles":0,"metric_skip":0,"speed_offset_upramp_f":0.0,"speed_offset_downramp_f":0.0,"ignore_stalls":0,"slaved":0,"slave_ratio":1.0}|
END

# A request and its response name each other.
check "what belongs together" \
    "$(fields "$work/session" jovu.request_in frame.number jovu.request_in)" \
    <<<"$(fields "$work/session" jovu.response_in jovu.response_in frame.number)"
check "how many, and one with another id" "$(
    fields "$work/session" jovu.response_in jovu.name
    fields "$work/session" jovu.no_request jovu.name)" <<'END'
heater_var_set
servo_dc_name_str_get
servo_dc_move_default
END

# On a busy computer the job is finished before `push` asks for its state, and so reported twice.
check jobs "$(fields "$work/session" 'jovu.job.size or jovu.job.data or jovu.job.state == "finished"' \
    jovu.job.{type,size,adler32,offset,due,state,error} | uniq)" <<'END'
file_push|6393|0xc2221c76||||
|||0|1273||
|||5120|0||
status|||||finished|0
END

# What a device sends that is wrong, and what is said of it: MESSAGE <= REQUEST.
cat >"$work/faults" <<'END'
Bytes outside of frames and objects <= send 1:2 message 78
Not JSON: a string without its end at byte 2 of the payload <= frame 1:2 {"a
Not JSON: neither "," nor "]" at byte 4 of the payload <= frame 1:2 [7,08]
Not a message: no attrs. Receivers drop it <= frame 1:2 {"transport":{"id":1},"data":{}}
Not a message: no transport. Receivers drop it <= frame 1:2 [1e999]
The frame is empty <= send 1:2 message 240100feff3b
The length and its check do not match <= send 1:2 message 240200ff00
The frame does not end with ";" <= send 1:2 message 240300fcff7b7d21
The response has no result: the request was not carried out,The capture has no request with this id <= frame 1:2 {"transport":{"attrs":["response",7],"id":-1e999},"data":{"command":{"idx":1e999,"name":7}}}
Not JSON: more than 64 levels at byte 64 of the payload <= frame 1:2 [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[
Incomplete: another one begins before its end <= send 1:2 job 7b7b7b
Not a message: no type. Receivers drop it <= send 1:2 job 7b7d
Repeats a transfer that timed out <= fault 1:2 never 02 1
END
# The first objects and frames are sound: before these, a capture may have begun in the middle.
"$sim" run --capture "$work/wrong" -- sh -e -c '
    report="{\"metadata\":{\"type\":\"status\"},\"error\":-1e999,\"job\":{\"progress\":1.5}}"
    report=$(printf "%s" "$report" | od -An -tx1 | tr -d " \n")
    "$sim" ctl event 1:2 "" && "$sim" ctl send 1:2 job "$report"
    while IFS= read -r line; do
        "$sim" ctl "${line#* <= }"
        case $line in Incomplete*) "$sim" ctl send 1:2 job "$report" ;; esac
    done <"$work/faults"
    exec "$jovu" call bio_get_version' >"$work/out" 2>&1 || failures=1
check faults "$(fields "$work/wrong" _ws.expert _ws.expert.message | sort)" \
    <<<"$(sed 's/ <= .*//' "$work/faults" | sort)"

# A capture that is cut, begins in the middle, has no descriptors or is damaged is no error.
editcap -r "$work/session" "$work/middle" 25-500
check "without the beginning" "$(fields "$work/middle" 'jovu.kind == "response"' jovu.name)" <<'END'
heater_var_set
servo_dc_name_str_get
servo_dc_move_default
END
editcap -s 100 "$work/session" "$work/short"
check "without the end of each packet: whole frames without their messages" \
    "$(fields "$work/short" jovu.frame.terminator jovu.name | sort | uniq -c)" <<<'      7 '
head -c 2500 "$work/session" >"$work/cut"
for seed in 1 3 9; do editcap -E 0.0$seed --seed $seed "$work/session" "$work/damaged.$seed"; done >/dev/null 2>&1
check "errors in the dissector" "$(for file in "$work"/{session,wrong,short,cut,damaged.*}; do
    dissect "$file" -V | grep -E 'Lua|^tshark' | grep -v 'cut short in the middle of a packet'
done)" <<<''
[ $failures -eq 0 ]
