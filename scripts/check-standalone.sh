#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compiles each source of program, simulator and tests on its own, up to the code generation: in a
# unity build a source may lack an include that one before it has. What a precompiled header includes
# is there for all; scripts/long-checks.sh tidy reads the sources without any.
#
#   scripts/check-standalone.sh BUILD_DIR
#
# BUILD_DIR was configured with clang++ and without unity builds (preset "clang"). The release build
# compiles the sources of the library one by one.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${1:?usage: scripts/check-standalone.sh BUILD_DIR}
# The commands of the files whose names, relative to this folder, match the regular expression $1;
# each is ended by a null byte.
commands() {
    jq -j --arg root "$PWD/" --arg files "$1" '.[] | select(.file | ltrimstr($root) | test($files))
 | "cd \(.directory | @sh) && \(.command)\u0000"' "$build_dir/compile_commands.json"
}
run() { xargs -0 -r -P "$(nproc)" -n 1 bash -c; }

# Every source but those of the panel's test, which takes Qt; the release build compiles that.
missing=$(comm -13 \
    <(jq -r --arg root "$PWD/" '.[].file | ltrimstr($root)' "$build_dir/compile_commands.json" | sort) \
    <(find tools sim tests -name '*.cpp' -not -path 'tests/public_headers/*' \
        -not -path 'tests/panel/*' | sort))
[[ -z $missing ]] || {
    echo "check-standalone: the build does not compile: ${missing//$'\n'/ }" >&2
    exit 1
}

commands '^build/.*/cmake_pch.hxx.cxx$' | run # precompiled headers
commands '^(tools|sim|tests)/' | sed -z 's| -o [^ ]* -c | -fsyntax-only |' | run
echo "$(commands '^(tools|sim|tests)/' | tr -cd '\0' | wc -c) sources"
