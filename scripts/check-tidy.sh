#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs clang-tidy over the sources of library, program, simulator, Python module and tests. Every
# finding is an error.
#
#   scripts/check-tidy.sh [--all] BUILD_DIR
#
# BUILD_DIR was configured with clang++ and unity builds (preset "tidy"). Reading the headers takes
# most of the time, so several sources are read at once. The library gets every check, and its sources
# one by one for the static analyzer, which looks at the functions of a main file only. The other
# folders get the checks of style. With --all they get all but the static analyzer; that takes a build
# without unity sources, whose folders have checks of their own.
set -euo pipefail
cd "$(dirname "$0")/.."

style=(readability-identifier-naming readability-container-size-empty readability-const-return-type
    readability-delete-null-pointer readability-misleading-indentation
    readability-redundant-smartptr-get modernize-use-nullptr modernize-use-override
    modernize-make-unique modernize-make-shared modernize-deprecated-headers misc-unused-using-decls)
# Headers and sources of the folders are included files in a unity source.
rest=("--checks=-*,$(IFS=,; echo "${style[*]}")" '--header-filter=/(src|tools|sim|python|tests)/')
if [[ ${1:-} == --all ]]; then
    rest=('--checks=-clang-analyzer-*')
    shift
fi
build_dir=${1:?usage: scripts/check-tidy.sh [--all] BUILD_DIR}
[[ -f $build_dir/compile_commands.json ]] || {
    echo "check-tidy: no compile_commands.json in $build_dir" >&2
    exit 1
}
# A file of the build is a source or a unity source, which includes several.
sources_of() {
    if [[ $1 == build/*/unity_* ]]; then sed -n "s|^#include \"$PWD/\(.*\)\"$|\1|p" "$1"; else echo "$1"; fi
}
files= covered=
while read -r file; do
    sources=$(sources_of "$file" | grep -E '^(src|tools|sim|python|tests)/') || continue
    files+=$file$'\n' covered+=$sources$'\n'
done < <(jq -r --arg root "$PWD/" '[.[].file | ltrimstr($root)] | unique[]' \
    "$build_dir/compile_commands.json")
covered=$(sort -u <<<"${covered%$'\n'}")
sources=$(find src tools sim python tests -name '*.cpp' -not -path 'tests/public_headers/*' -not -path 'tests/panel/*' | sort)
[[ $covered == "$sources" ]] || {
    echo "check-tidy: the build does not compile the same sources:" >&2
    diff <(echo "$covered") <(echo "$sources") >&2 || true
    exit 1
}
tidy() { xargs -P "$(nproc)" -n "$1" clang-tidy-14 -quiet -p "$build_dir" "${@:2}"; }
# All checks of the library except two that read one source at a time: the analyzer, and the check for
# exceptions in destructors, which reports every throw of a called function, whatever its condition.
alone=clang-analyzer-*,bugprone-exception-escape
read -ra options < <(jq -r --arg src "$PWD/src/" \
    '[.[] | select(.file | startswith($src))][0].command | sub(" -o [^ ]* -c .*"; "")' \
    "$build_dir/compile_commands.json")
library=$build_dir/library.cpp
grep '^src/' <<<"$sources" | sed "s|.*|#include \"$PWD/&\"|" >"$library"
clang-tidy-14 -quiet --config-file=.clang-tidy "--checks=-${alone/,/,-},-bugprone-suspicious-include" \
    "$library" -- "${options[@]:1}" &
whole=$!
status=0
grep '^src/' <<<"$sources" | tidy 2 "--checks=-*,$alone" || status=1
grep -v '^src/\|^$' <<<"$files" | tidy 1 "${rest[@]}" || status=1
wait "$whole" || status=1
[[ $status -eq 0 ]] || exit "$status"
echo "$(wc -l <<<"$sources") sources"
