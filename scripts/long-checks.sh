#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs in full the checks of which ./test.sh takes a sample, and those that it leaves out. Takes about
# an hour and a half on two cores.
#
#   scripts/long-checks.sh [sweep] [storms] [tidy] [packages] [kernel]     all by default
#
#   sweep     the fault sweep with every run, as released and under AddressSanitizer
#   storms    the storms at 50 times the everyday scale, also under ThreadSanitizer
#   tidy      every check of clang-tidy but the static analyzer over program, simulator and tests
#   packages  the Debian packages, installed in a system of their own (scripts/check-packages.sh)
#   kernel    the simulated controller of one machine attached to another one, both virtual
#
# Prints a line a step; the full output is in build/logs. Exit status: 0 when every step that can run
# on this system passed.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/steps.sh

parts=("$@")
[[ $# -gt 0 ]] || parts=(sweep storms tidy packages kernel)
for part in "${parts[@]}"; do
    [[ " sweep storms tidy packages kernel " == *" $part "* ]] || {
        echo "long-checks.sh: unknown part: $part (sweep, storms, tidy, packages, kernel)" >&2
        exit 2
    }
done
# As in the test suite.
export ASAN_OPTIONS=detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1
export TSAN_OPTIONS=second_deadlock_stack=1:suppressions=tests/tsan.supp
cores=$(nproc)
tsan_runner=()
if setarch -R true 2>/dev/null; then tsan_runner=(setarch -R); fi

# PRESET TARGET...
build() { cmake --preset "$1" && cmake --build "build/$1" --parallel "$cores" --target "${@:2}"; }
# PRESET RUNNER... Each storm in a process, and on a bus, of its own; ended after an hour.
storms() {
    local bin=build/$1/bin list storm status=1
    export JOVU_STORM_SCALE=${JOVU_STORM_SCALE:-50}
    list=$("${@:2}" "$bin/storm_tests" --gtest_list_tests) || return 1
    for storm in $(sed -n 's/^  //p' <<<"$list"); do
        [[ $status -ne 1 ]] || status=0
        "${@:2}" timeout 3600 "$bin/jovu-sim" run --empty --time-scale 20 -- \
            "$bin/storm_tests" "--gtest_filter=*.$storm" || status=2
    done
    return "$status"
}
tidy() {
    cmake --preset tidy -B build/tidy-all -D CMAKE_UNITY_BUILD=OFF &&
        scripts/check-tidy.sh --all build/tidy-all
}

kernel() {
    build release jovu-cli jovu-sim &&
        { scripts/run-in-vm.sh --prepare || return; } &&
        { tests/kernel/two_machines.sh build/release/bin || return 1; }
}
packages() { scripts/install-packages.sh packages && scripts/check-packages.sh; }

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
        packages) step "packages" packages || true ;;
        kernel) step "two machines" kernel || true ;;
    esac
done
[[ ${#step_failed[@]} -eq 0 ]]
