#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Lets clang's libFuzzer look for inputs that break the library or the program.
#
#   scripts/fuzz.sh SECONDS [FUZZER]...    each for that long, one after another; without names all
#
# What is found lands in build/fuzz/found and is told; move it to fuzz/corpus/FUZZER with the fix,
# so that the tests run it from then on. Prints each fuzzer's executions and coverage.
set -euo pipefail
cd "$(dirname "$0")/.."

[[ ${1:-} =~ ^[1-9][0-9]*$ ]] || { sed -n '3,/^set /s/^# \{0,1\}//p' "$0" >&2; exit 2; }
seconds=$1
shift
all=(message_channel job_channel dfu_output call_arguments bridge_request bridge_config)
fuzzers=("$@")
[[ ${#fuzzers[@]} -gt 0 ]] || fuzzers=("${all[@]}")
for name in "${fuzzers[@]}"; do
    [[ " ${all[*]} " == *" $name "* ]] || { echo "fuzz.sh: unknown fuzzer: $name" >&2; exit 2; }
done

cmake --preset fuzz >/dev/null
cmake --build build/fuzz -- "${fuzzers[@]/#/fuzz_}"
status=0
for name in "${fuzzers[@]}"; do
    mkdir -p "build/fuzz/corpus/$name" build/fuzz/found
    echo "$name:"
    build/fuzz/bin/"fuzz_$name" -max_total_time="$seconds" -max_len=70000 -timeout=20 \
        -print_final_stats=1 -artifact_prefix="build/fuzz/found/$name-" \
        "build/fuzz/corpus/$name" "fuzz/corpus/$name" 2>"build/fuzz/$name.log" || status=1
    grep -E 'DONE|stat::number_of_executed_units|ERROR|SUMMARY|Test unit written' \
        "build/fuzz/$name.log" || true
done
exit "$status"
