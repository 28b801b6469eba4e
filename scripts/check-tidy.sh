#!/usr/bin/env bash
# Runs clang-tidy over the library's sources. Every finding is an error.
#
#   scripts/check-tidy.sh BUILD_DIR    a folder that was configured with clang++ (preset "clang" or "asan")
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${1:?usage: scripts/check-tidy.sh BUILD_DIR}
[[ -f $build_dir/compile_commands.json ]] || {
    echo "check-tidy: no compile_commands.json in $build_dir" >&2
    exit 1
}
sources=$(find src -name '*.cpp' | wc -l)
covered=$(jq --arg src "$PWD/src/" '[.[].file | select(startswith($src))] | unique | length' \
    "$build_dir/compile_commands.json")
[[ $covered -eq $sources ]] || {
    echo "check-tidy: the build compiles $covered of the $sources sources in src" >&2
    exit 1
}
run-clang-tidy-14 -quiet -p "$build_dir" -j "$(nproc)" "^$PWD/src/"
echo "$sources files"
