#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs an optimised build and looks for the protections of JOVU_HARDENING in the library and the
# program: an own address for each run, tables that are read-only from the start, a stack that is
# not executable, guards of the stack, checked variants of the C library's functions, and on x86
# marks at the targets of indirect jumps.
#
#   scripts/check-hardening.sh BUILD_DIR COMPILER
set -euo pipefail
build_dir=$1 compiler=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
failed=0

# expect FILE WHAT TEXT REGEX: the text has to have a line that matches.
expect() {
    grep -qE -- "$4" <<<"$3" || { echo "check-hardening: ${1##*/} has no $2" >&2; failed=1; }
}

# What this compiler can do: not each has checked variants in C++, and the mark that all jumps are
# tracked needs a C library whose start-up code has it as well.
cat >"$work/main.cpp" <<'END'
#include <cstdio>
int main(int count, char** words) {
    char text[20];
    std::snprintf(text, sizeof text, "%d %s", count, words[0]);
    return std::puts(text);
}
END
marks=none protection=
if [[ $(uname -m) =~ ^(x86_64|i[3-6]86)$ ]]; then marks=code protection=-fcf-protection; fi
"$compiler" -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 $protection -o "$work/main" "$work/main.cpp"
notes=$(readelf -nW "$work/main")
if [[ $notes == *"IBT, SHSTK"* ]]; then marks=note; fi
checked=_chk; if [[ $(nm -D "$work/main") != *__snprintf_chk* ]]; then checked=; fi

files=("$work/prefix/bin/jovu")
library=$(find "$work/prefix" -type f -name 'libjovu.so.*')
if [[ -n $library ]]; then files+=("$library"); fi
for file in "${files[@]}"; do
    segments=$(readelf -lW "$file")
    dynamic=$(readelf -dW "$file")
    imports=$(readelf --dyn-syms -W "$file" | awk '$7 == "UND" {print $8}')
    expect "$file" "address of its own for each run" "$(readelf -hW "$file")" 'Type: +DYN'
    expect "$file" "read-only relocations" "$segments" GNU_RELRO
    expect "$file" "immediate binding" "$dynamic" BIND_NOW
    expect "$file" "stack without execution" "$segments" 'GNU_STACK( +0x[0-9a-f]+){5} RW '
    expect "$file" "guarded stack" "$imports" '^__stack_chk_fail'
    expect "$file" "checked function" "$(grep -v '^__stack_chk_fail' <<<"$imports")" "$checked(@|\$)"
    case $marks in
        note) expect "$file" "IBT and SHSTK" "$(readelf -nW "$file")" 'IBT, SHSTK' ;;
        code)
            # A few are in any file, from the compiler's own libraries.
            expect "$file" "marks at its functions" "$(objdump -d "$file" | grep -c endbr)" '[0-9]{3}' ;;
    esac
done
expect "${files[0]}" "mark as a program of that kind" "$(readelf -dW "${files[0]}")" 'FLAGS_1.*PIE'
if [[ $failed -eq 0 ]]; then echo "hardened: ${files[*]##*/} (jumps: ${marks}, functions: ${checked:-not by this compiler})"; fi
exit "$failed"
