#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_examples.sh SOURCE_DIR: the example compiles without a warning by both compilers, in both
# standards, with and without run-time type information.
set -euo pipefail
cd "$1"
for way in {g++,clang++}\ -std=c++{17,20}{,\ -fno-rtti}; do
    read -ra words <<<"$way"
    "${words[@]}" -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Iinclude \
        -fsyntax-only examples/status.cpp || { echo "failed: $way" >&2; exit 1; }
done
