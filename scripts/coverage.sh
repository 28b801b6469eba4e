#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints how much of the library its own tests reach, lines and branches of each file.
#
#   scripts/coverage.sh
#
# Branches that only an exception takes are left out: nearly every call has one. Needs gcovr.
set -euo pipefail
cd "$(dirname "$0")/.."

command -v gcovr >/dev/null || { echo "coverage.sh: gcovr is not installed" >&2; exit 1; }
cmake --preset coverage >/dev/null
cmake --build build/coverage --parallel "$(nproc)" --target \
    unit_tests fake_usb_tests integration_tests leaving jovu-sim
find build/coverage -name '*.gcda' -delete
ctest --test-dir build/coverage --label-regex '^(unit|fake_usb|integration)$' --parallel 8 \
    --output-on-failure >build/coverage/tests.log || { tail -n 40 build/coverage/tests.log; exit 1; }
gcovr --root . --object-directory build/coverage --filter src/ --filter include/ \
    --exclude-throw-branches --exclude-unreachable-branches --print-summary
