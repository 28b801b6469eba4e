#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares every C++ file with .clang-format, and looks for the licence in every source. Changes
# nothing, unless called with --fix, which formats.
set -euo pipefail
cd "$(dirname "$0")/.."

# Another version formats differently.
formatter=clang-format-14
mode=(--dry-run --Werror)
if [[ ${1:-} == --fix ]]; then mode=(-i); fi

folders=()
for folder in include src tools sim python tests examples fuzz bench; do
    if [[ -d $folder ]]; then folders+=("$folder"); fi
done
mapfile -d '' files < <(find "${folders[@]}" \( -name '*.h' -o -name '*.cpp' \) -print0 | sort -z)
[[ ${#files[@]} -gt 0 ]] || { echo "check-format: no files found" >&2; exit 1; }
"$formatter" "${mode[@]}" "${files[@]}"

mapfile -d '' sources < <(find . \( -path ./build -o -path ./.git -o -path ./fuzz/corpus \) -prune -o \
    \( -name '*.h' -o -name '*.cpp' -o -name '*.sh' -o -name '*.py' -o -name '*.lua' -o -name '*.in' \
    -o -name '*.cmake' -o -name CMakeLists.txt \) -print0)
if grep -L 'SPDX-License-Identifier: Apache-2.0' "${sources[@]}" | grep .; then
    echo "check-format: these files do not name their licence (see the first line of others)" >&2
    exit 1
fi
echo "${#files[@]} files"
