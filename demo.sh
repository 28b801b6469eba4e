#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Shows the whole thing at work, without hardware: installs what is missing, builds the library,
# the jovu program and the simulated controller, and drives the one with the other.
#
#   ./demo.sh                 everything
#   ./demo.sh --no-install    takes the packages as they are
#   ./demo.sh --help
#
# Exit status: 0 when everything went well, else 1; it stops at what failed.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/steps.sh

install=true
case ${1:-} in
    "") ;;
    --no-install) install=false ;;
    -h | --help) sed -n '3,/^set /s/^# \{0,1\}//p' demo.sh; exit 0 ;;
    *) echo "demo.sh: unknown option: $1 (see --help)" >&2; exit 2 ;;
esac

build() {
    cmake --preset library &&
        cmake --build build/library --parallel "$(nproc)" --target jovu-cli jovu-sim announce
}
if "$install"; then
    step "packages" scripts/install-packages.sh demo || exit 1
fi
step "build" build || exit 1
examples/make-calibration-cube.sh >build/calibration-cube.gcode

# One simulated bus for the whole story, so that each command meets the same controller.
PATH=$PWD/build/library/bin:$PATH
cd build
jovu-sim run -- bash ../scripts/demo-story.sh || {
    echo "demo.sh: the story did not come to its end" >&2
    exit 1
}
