#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_symbols.sh LIBRARY SYMBOLS: the shared library has the name, and exports the symbols, of the
# list debian/libjovu1.symbols. A symbol that disappears breaks programs; one that leaks out becomes
# part of an ABI that nobody meant to keep.
set -euo pipefail
library=$1 list=$2
failed=0
export LC_ALL=C

expected=$(sed -n '1s/ .*//p' "$list")
soname=$(objdump -p "$library" | awk '$1 == "SONAME" {print $2}')
[[ $soname == "$expected" ]] || {
    echo "SONAME is '$soname', not '$expected'" >&2
    failed=1
}

# Lines of the list: (c++)"NAME@Base" VERSION, or (c++|arch-bits=BITS)"NAME@Base" VERSION.
bits=32
if readelf -h "$library" | grep -q ELF64; then bits=64; fi
listed=$(sed -nE "s/^ \(c\+\+(\|arch-bits=$bits)?\)\"(.*)@Base\" [0-9.]+$/\2/p" "$list" | sort -u)
exported=$(nm --dynamic --defined-only "$library" | sed 's/^[0-9a-f]* . //' | c++filt | sort -u)
[[ -n $listed ]] || { echo "no symbols in $list" >&2; exit 1; }
diff <(echo "$listed") <(echo "$exported") || {
    echo "exported symbols differ from $list: < is missing, which breaks programs and needs a new" >&2
    echo "SONAME; > is new: hide it, or add it with the version in which it appears" >&2
    failed=1
}
exit "$failed"
