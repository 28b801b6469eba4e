#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that the newest entry of debian/changelog has the version of the library, as its header
# gives it.
set -euo pipefail
cd "$(dirname "$0")/.."

number() { sed -n "s/^#define JOVU_VERSION_$1 \([0-9]*\)$/\1/p" include/jovu/version.h; }
header=$(number MAJOR).$(number MINOR).$(number PATCH)
packages=$(sed -n '1s/.*(\([^)]*\)).*/\1/p' debian/changelog)
[[ $packages == "$header" ]] || {
    echo "check-version: debian/changelog is at '$packages', include/jovu/version.h at '$header'" >&2
    exit 1
}
