#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_examples.sh SOURCE_DIR: each example compiles without a warning by both compilers, in both
# standards, with run-time type information and (one derives from nothing, one from JovuClient)
# without.
set -euo pipefail
cd "$1"
strict=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Iinclude -fsyntax-only)
for compiler in g++ clang++; do
    for standard in 17 20; do
        printf '%s\n' "$compiler -std=c++$standard "examples/*.cpp
        printf '%s\n' "$compiler -std=c++$standard -fno-rtti "examples/{status,monitor}.cpp
    done
done | xargs -P 2 -I{} sh -c '$1 $2 || { echo "failed: $1" >&2; exit 255; }' - {} "${strict[*]}"
