#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build into a folder of its own, moves that, builds the examples against it by CMake and
# one by pkg-config, runs them on a simulated controller, and the installed program.
#
#   scripts/check-install.sh BUILD_DIR COMPILER JOVU_SIM
set -euo pipefail
examples=$(cd "$(dirname "$0")/../examples" && pwd)
build_dir=$1 compiler=$2 jovu_sim=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "check-install: $1" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"
prefix=$work/prefix
[[ -f $prefix/lib/udev/rules.d/70-jovu.rules ]] || fail "no udev rule"
"$prefix/bin/jovu" --help >/dev/null || fail "the installed program does not start"

# Without permission, it names the rule that it was installed with.
mkdir "$work/tool"
printf '#!/bin/sh\necho "Cannot open DFU device 7a1c:00df found on devnum 9 (LIBUSB_ERROR_ACCESS)" >&2\n' \
    >"$work/tool/dfu-util"
chmod +x "$work/tool/dfu-util"
said=$(PATH=$work/tool:$PATH "$prefix/bin/jovu" dfu 2>&1) && fail "jovu dfu: exit status 0"
[[ $said == *"udev rule $prefix/lib/udev/rules.d/70-jovu.rules"* ]] || fail "no path of the rule: $said"

cmake -S "$examples" -B "$work/by-cmake" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/by-cmake"

pc=$(find "$prefix" -name jovu.pc -printf '%h')
export PKG_CONFIG_PATH=$pc
mkdir "$work/by-pkg-config"
read -ra flags <<<"$(pkg-config --cflags --libs jovu)"
"$compiler" -std=c++17 "$examples/announce.cpp" -o "$work/by-pkg-config/announce" "${flags[@]}"

# Linked into the program, where a static library is installed beside the shared one: --static
# names what it stands on.
ways=(by-cmake by-pkg-config)
if [[ -f $pc/../libjovu.a ]]; then
    ways+=(by-pkg-config-static)
    mkdir "$work/by-pkg-config-static"
    flags=$(pkg-config --cflags --libs --static jovu)
    read -ra flags <<<"${flags/-ljovu/-l:libjovu.a}"
    "$compiler" -std=c++17 "$examples/announce.cpp" -o "$work/by-pkg-config-static/announce" \
        "${flags[@]}"
    ! objdump -p "$work/by-pkg-config-static/announce" | grep -q 'NEEDED.*libjovu' ||
        fail "the program by pkg-config --static needs the shared library"
fi

# The library is where pkg-config says; a program that it does not tell of its run-time path.
LD_LIBRARY_PATH=$(pkg-config --variable=libdir jovu)
export LD_LIBRARY_PATH
for way in "${ways[@]}"; do
    said=$("$jovu_sim" run -- "$work/$way/announce" 3)
    echo "$way: $said"
    [[ $said == *"1:2 is here: serial "* ]] || fail "the example $way found no controller"
done
said=$("$jovu_sim" run -- "$work/by-cmake/status" 1)
[[ $said == "libjovu "*": 1:2 "*" C" ]] || fail "status found no controller: $said"
