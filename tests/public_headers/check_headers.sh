#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_headers.sh SOURCE_DIR HEADER...: include/jovu holds exactly these headers, and each of them
# includes only its neighbours and the standard library.
set -euo pipefail
source_dir=$1
shift

agreed=$(printf '%s\n' "$@" | LC_ALL=C sort)
present=$(cd "$source_dir/include/jovu" && find . -type f -printf '%P\n' | LC_ALL=C sort)
diff <(echo "$agreed") <(echo "$present") || {
    echo "include/jovu differs from the agreed headers: < is missing, > is new" >&2
    exit 1
}

# The standard library's headers have no suffix and no folder.
strangers=$(grep -rnE '^[[:space:]]*#[[:space:]]*include' "$source_dir/include" |
    grep -vE 'include <[a-z_0-9]+>|include "jovu/[a-z_]+\.h"') || exit 0
echo "public headers include more than each other and the standard library:" >&2
echo "$strangers" >&2
exit 1
