#!/usr/bin/env bash
# Compares every C++ file with .clang-format. Changes nothing, unless called with --fix.
set -euo pipefail
cd "$(dirname "$0")/.."

# Another version formats differently.
formatter=clang-format-14
mode=(--dry-run --Werror)
if [[ ${1:-} == --fix ]]; then mode=(-i); fi

folders=()
for folder in include src tools sim tests examples fuzz bench; do
    if [[ -d $folder ]]; then folders+=("$folder"); fi
done
mapfile -d '' files < <(find "${folders[@]}" \( -name '*.h' -o -name '*.cpp' \) -print0 | sort -z)
[[ ${#files[@]} -gt 0 ]] || { echo "check-format: no files found" >&2; exit 1; }
"$formatter" "${mode[@]}" "${files[@]}"
echo "${#files[@]} files"
