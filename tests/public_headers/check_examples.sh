#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_examples.sh SOURCE_DIR: each example compiles without a warning by both compilers, in both
# standards, with run-time type information and (one derives from nothing, one from JovuClient)
# without.
set -euo pipefail
cd "$1"
strict=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Iinclude -fsyntax-only)
for way in {g++,clang++}\ -std=c++{17,20}; do
    echo "$way" examples/*.cpp
    echo "$way" -fno-rtti examples/{status,monitor}.cpp
done | xargs -P 2 -I{} sh -c '{} "$@" || { echo "failed: {}" >&2; exit 255; }' - "${strict[@]}"
