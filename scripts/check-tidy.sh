#!/usr/bin/env bash
# Runs clang-tidy over the sources of library, program, simulator and tests, each as it stands alone
# (no unity build, no precompiled headers). Every finding is an error.
#
#   scripts/check-tidy.sh [--all] BUILD_DIR
#
# BUILD_DIR was configured with clang++ (preset "clang"). The library gets every check. The other
# folders get those of style, which take seconds; with --all, which takes ten minutes on two cores,
# all but the static analyzer.
set -euo pipefail
cd "$(dirname "$0")/.."

style=(readability-identifier-naming readability-container-size-empty readability-const-return-type
    readability-delete-null-pointer readability-misleading-indentation
    readability-redundant-smartptr-get modernize-use-nullptr modernize-use-override
    modernize-make-unique modernize-make-shared modernize-deprecated-headers misc-unused-using-decls)
rest="-*,$(IFS=,; echo "${style[*]}")"
if [[ ${1:-} == --all ]]; then
    rest='-clang-analyzer-*'
    shift
fi
build_dir=${1:?usage: scripts/check-tidy.sh [--all] BUILD_DIR}
[[ -f $build_dir/compile_commands.json ]] || {
    echo "check-tidy: no compile_commands.json in $build_dir" >&2
    exit 1
}
# Folders whose sources are checked, each by the .clang-tidy next to it or above it.
folders=(src tools sim tests)
sources=$(find "${folders[@]}" -name '*.cpp' -not -path 'tests/public_headers/*' | wc -l)
files=$(jq -r --arg root "$PWD/" --arg folders "^($(IFS='|'; echo "${folders[*]}"))/" \
    '[.[].file | ltrimstr($root) | select(test($folders))] | unique[]' \
    "$build_dir/compile_commands.json")
covered=$(wc -l <<<"$files")
[[ $covered -eq $sources ]] || {
    echo "check-tidy: the build compiles $covered of the $sources sources in ${folders[*]}" >&2
    exit 1
}
tidy() { xargs -P "$(nproc)" -n 4 clang-tidy-14 -quiet -p "$build_dir" "$@"; }
status=0
grep '^src/' <<<"$files" | tidy || status=1
grep -v '^src/' <<<"$files" | tidy "--checks=$rest" || status=1
[[ $status -eq 0 ]] || exit "$status"
echo "$sources files"
