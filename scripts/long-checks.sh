#!/usr/bin/env bash
# Runs in full the checks of which ./test.sh takes a sample. Takes about an hour and a half on two cores.
#
#   scripts/long-checks.sh [sweep] [storms] [tidy]     all three by default
#
#   sweep     the fault sweep with every run, as released and under AddressSanitizer
#   storms    the storms at 50 times the everyday scale, also under ThreadSanitizer
#   tidy      every check of clang-tidy but the static analyzer over program, simulator and tests
#
# Prints a line a step; the full output is in build/logs. Exit status: 0 when every step passed.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/steps.sh

parts=("$@")
[[ $# -gt 0 ]] || parts=(sweep storms tidy)
cores=$(nproc)
tsan_runner=()
if setarch -R true 2>/dev/null; then tsan_runner=(setarch -R); fi

# PRESET TARGET...
build() { cmake --preset "$1" && cmake --build "build/$1" --parallel "$cores" --target "${@:2}"; }
# PRESET RUNNER... Each storm in a process, and on a bus, of its own.
storms() {
    local bin=build/$1/bin storm status=0
    export JOVU_STORM_SCALE=${JOVU_STORM_SCALE:-50}
    export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp"
    for storm in $("$bin/storm_tests" --gtest_list_tests | sed -n 's/^  //p'); do
        "${@:2}" "$bin/jovu-sim" run --empty --time-scale 20 -- \
            "$bin/storm_tests" "--gtest_filter=*.$storm" || status=1
    done
    return "$status"
}
tidy() {
    cmake --preset tidy -B build/tidy-all -D CMAKE_UNITY_BUILD=OFF &&
        scripts/check-tidy.sh --all build/tidy-all
}

for part in "${parts[@]}"; do
    case $part in
        sweep)
            for preset in release asan; do
                step "$preset sweep build" build "$preset" fault_sweep &&
                    step "$preset whole sweep" "build/$preset/bin/fault_sweep" || true
            done ;;
        storms)
            for preset in release asan tsan; do
                runner=()
                [[ $preset != tsan ]] || runner=("${tsan_runner[@]}")
                step "$preset storms build" build "$preset" storm_tests jovu-sim &&
                    step "$preset storms" storms "$preset" "${runner[@]}" || true
            done ;;
        tidy) step "tidy" tidy || true ;;
        *) echo "long-checks.sh: unknown part: $part (sweep, storms, tidy)" >&2; exit 2 ;;
    esac
done
[[ ${#step_failed[@]} -eq 0 ]]
