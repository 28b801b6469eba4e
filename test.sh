#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the whole project: formatting, documentation, the test suite as it is released (g++), under
# AddressSanitizer with UBSan and under ThreadSanitizer (clang++), the released programs on a Debian
# kernel in a virtual machine, each source on its own, and clang-tidy's findings.
# Installs what is missing first. While a suite runs, which mostly waits, the next one is built.
#
#   ./test.sh                     everything
#   ./test.sh --preset NAME       one of: format, release, asan, tsan, standalone, kernel, tidy
#                                 (may be repeated)
#   ./test.sh --tests REGEX       only the tests whose names match
#   ./test.sh --repeat N          runs each suite N times, until one fails
#   ./test.sh --no-install        takes the packages as they are
#   ./test.sh --help
#
# Prints a line a step; the full output is in build/logs. A step that this system cannot run is
# listed as NOT RUN with the reason: kernel, without the packages or the network for it. Exit status:
# 0 when every step that ran passed, 1 when one failed, 2 for a wrong option.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/steps.sh

usage() { sed -n '3,/^set /s/^# \{0,1\}//p' test.sh; }
wrong_usage() { echo "test.sh: $1 (see --help)" >&2; exit 2; }

# The virtual machine of "kernel" runs beside "tidy", which no load disturbs.
all=(format release asan tsan standalone kernel tidy)
chosen=()
ctest_options=()
repeat=1 kernel_tests=
install=true
while [[ $# -gt 0 ]]; do
    case $1 in
        --preset | --tests | --repeat) [[ $# -ge 2 ]] || wrong_usage "$1 needs a value" ;;
    esac
    case $1 in
        --preset)
            [[ " ${all[*]} " == *" $2 "* ]] || wrong_usage "unknown preset: $2"
            chosen+=("$2"); shift 2 ;;
        --tests) ctest_options+=(--tests-regex "$2"); kernel_tests=$2; shift 2 ;;
        --repeat)
            [[ $2 =~ ^[1-9][0-9]*$ ]] || wrong_usage "not a number of runs: $2"
            ctest_options+=(--repeat "until-fail:$2"); repeat=$2; shift 2 ;;
        --no-install) install=false; shift ;;
        -h | --help) usage; exit 0 ;;
        *) wrong_usage "unknown option: $1" ;;
    esac
done
[[ ${#chosen[@]} -gt 0 ]] || chosen=("${all[@]}")

cores=$(nproc)
# Tests mostly wait for a device or a time-out, so many more than the cores can run at once.
test_jobs=$((cores * 4))
test_timeout=240 # seconds; what a test without a limit of its own may take on a loaded machine
kernel_timeout=400 # seconds; about 60 on a machine with nothing else to do

# ThreadSanitizer's map of the address space does not fit every degree of randomisation that a
# kernel may be set to, so its programs run without any. Where that is not permitted (in some
# containers), the kernel's setting has to do.
tsan_runner=()
if setarch -R true 2>/dev/null; then tsan_runner=(setarch -R); fi

configure() { cmake --preset "$1"; }
# PRESET RUNNER... Keeps going after an error, so that one run shows them all. The build runs test
# programs too: it asks them for the tests that they have.
build() { configure "$1" && "${@:2}" cmake --build "build/$1" --parallel "$cores" -- -k 0; }
build_programs() { configure "$1" && cmake --build "build/$1" --target jovu-cli jovu-sim announce; }
suite() {
    "${@:2}" ctest --preset "$1" --parallel "$test_jobs" --timeout "$test_timeout" \
        "${ctest_options[@]}"
}
standalone() { configure clang && scripts/check-standalone.sh build/clang; }
tidy() { configure tidy && scripts/check-tidy.sh build/tidy; }

kernel() {
    local run
    scripts/run-in-vm.sh --prepare || return
    for ((run = 0; run < repeat; ++run)); do
        scripts/run-in-vm.sh --timeout "$kernel_timeout" -- \
            tests/kernel/kernel_test.sh build/release/bin "$kernel_tests" || return
    done
}

suites=()
running= # the label of the suite that runs in the background
build_and_test() {
    local built=true
    step "$1 build" build "$@" || built=false
    step_end "$running"
    "$built" || return 0
    suites+=("$1")
    running="$1 tests"
    step_begin "$running" suite "$@"
}
trap step_abandon EXIT

if "$install"; then
    step "packages" scripts/install-packages.sh test || exit 1
fi
for name in "${chosen[@]}"; do
    case $name in
        format)
            step "format" scripts/check-format.sh || true
            step "documentation" scripts/check-docs.py || true ;;
        standalone | tidy) step "$name" "$name" || true ;;
        release | asan) build_and_test "$name" ;;
        kernel)
            [[ " ${suites[*]} " == *" release "* ]] ||
                step "programs for kernel" build_programs release || continue
            step_begin "kernel" kernel ;;
        tsan) build_and_test "$name" "${tsan_runner[@]}" ;;
    esac
done
step_end

for name in "${suites[@]}"; do
    printf '\n%s:\n' "$name"
    sed -n '/% tests passed/,$p' "$step_log_dir/$name-tests.log"
done
if [[ ${#step_not_run[@]} -gt 0 ]]; then
    printf '\ntest.sh: not run: %s\n' "${step_not_run[@]}"
fi
if [[ ${#step_failed[@]} -gt 0 ]]; then
    printf -v failed '%s, ' "${step_failed[@]}"
    echo
    echo "test.sh: failed: ${failed%, }"
    exit 1
fi
