#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build into a folder of its own, moves that, and runs the installed program. Builds the
# examples against the library in each way that an application does: by CMake, by pkg-config and as a
# part of its own project, shared and static, by g++ and clang++; and runs them on a simulated
# controller. COMPILER is that of the build.
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

# The Python package, where it is built, finds the library in the folder that was moved.
package=$(find "$prefix" -path '*-packages/jovu' -printf '%h')
if [[ -n $package ]]; then
    python=$(sed -n 's/^Python3_EXECUTABLE:[^=]*=//p' "$build_dir/CMakeCache.txt")
    PYTHONPATH=$package "$jovu_sim" run -- "${python:-python3}" -c '
import jovu
with jovu.Client() as client:
    print(client.bio_get_serial(client.wait_for_device(30)))' >/dev/null || fail "no Python package"
fi

# Without permission, it names the rule that it was installed with.
mkdir "$work/tool"
printf '#!/bin/sh\necho "Cannot open DFU device 7a1c:00df found on devnum 9 (LIBUSB_ERROR_ACCESS)" >&2\n' \
    >"$work/tool/dfu-util"
chmod +x "$work/tool/dfu-util"
said=$(PATH=$work/tool:$PATH "$prefix/bin/jovu" dfu 2>&1) && fail "jovu dfu: exit status 0"
[[ $said == *"udev rule $prefix/lib/udev/rules.d/70-jovu.rules"* ]] || fail "no path of the rule: $said"

# Every example in each way that an application finds the library, in parallel with the others.
other=clang++
if [[ $compiler == *clang* ]]; then other=g++; fi
programs=(announce monitor push record status)
pc=$(find "$prefix" -name jovu.pc -printf '%h')
export PKG_CONFIG_PATH=$pc
lib=$(pkg-config --variable=libdir jovu)
ways=()
declare -A building
# way NAME COMMAND...: builds one way, in the background, into a folder of that name.
way() {
    ways+=("$1")
    mkdir "$work/$1"
    "${@:2}" "$work/$1" >"$work/$1.log" 2>&1 &
    building[$!]=$1
}
by_cmake() { # COMPILER SOURCE OPTION... FOLDER
    cmake -S "$2" -B "${*: -1}" -G Ninja -DCMAKE_CXX_COMPILER="$1" -DCMAKE_UNITY_BUILD=ON \
        "${@:3:$#-3}" && cmake --build "${*: -1}" --parallel 2
}
by_pkg_config() { # COMPILER FLAGS FOLDER
    local flags program
    read -ra flags <<<"$2"
    for program in "${programs[@]}"; do
        "$1" -std=c++17 "$examples/$program.cpp" -o "$3/$program" "${flags[@]}" || return
    done
}

# The panel, where Qt is, is built here alone: it uses no other part of the library than the others.
way cmake by_cmake "$compiler" "$examples" -DCMAKE_PREFIX_PATH="$prefix"
way pkg-config by_pkg_config "$other" "$(pkg-config --cflags --libs jovu)"
# Linked into the program: --static names what the static library stands on.
if [[ -f $lib/libjovu.a && -f $lib/libjovu.so ]]; then
    way cmake-static by_cmake "$other" "$examples" -DCMAKE_PREFIX_PATH="$prefix" \
        -DJOVU_EXAMPLES_STATIC=ON -DJOVU_BUILD_PANEL=OFF
    flags=$(pkg-config --cflags --libs --static jovu)
    way pkg-config-static by_pkg_config "$compiler" "${flags/-ljovu/-l:libjovu.a}"
fi
mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(embedding CXX)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "\${CMAKE_BINARY_DIR}")
add_subdirectory("$examples/.." jovu)
add_subdirectory("$examples" examples)
EOF
way add_subdirectory-static by_cmake "$other" "$work/project" -DJOVU_STATIC=ON
for job in "${!building[@]}"; do
    wait "$job" || { cat "$work/${building[$job]}.log" >&2; fail "${building[$job]} does not build"; }
done

for name in "${ways[@]}"; do
    needs=static
    if objdump -p "$work/$name/status" | grep -q 'NEEDED.*libjovu'; then needs=shared; fi
    expected=static
    if [[ -f $lib/libjovu.so && $name != *-static ]]; then expected=shared; fi
    [[ $needs == "$expected" ]] || fail "status by $name takes the $needs library"
done

# All run at once, each on a bus of its own. A program that pkg-config does not tell of its run-time
# path finds the library where pkg-config says.
"$examples/make-calibration-cube.sh" >"$work/cube.gcode"
declare -A arguments=([announce]=2 [monitor]=2 [push]=$work/cube.gcode [record]='/dev/stdout 2' [status]=2)
declare -A prints=(
    [announce]='*1:2 is here: serial JVS001002, firmware *'
    [monitor]='*  1:2  connected*  1:2  idle, 25 C*'
    [push]='*the controller is printing, job job-1, error 0*'
    [record]='time,device,event,text*,1:2,connected,""*'
    [status]='libjovu *: 1:2 idle, 23.5 C*')
running=()
for name in "${ways[@]}"; do
    for program in "${programs[@]}"; do
        read -ra with <<<"${arguments[$program]}"
        LD_LIBRARY_PATH=$lib "$jovu_sim" run -- "$work/$name/$program" "${with[@]}" \
            >"$work/$name/$program.out" 2>&1 &
        running+=($!)
    done
done
for job in "${running[@]}"; do wait "$job" || fail "an example has failed: $(cat "$work"/*/*.out)"; done
for name in "${ways[@]}"; do
    for program in "${programs[@]}"; do
        said=$(<"$work/$name/$program.out")
        # shellcheck disable=SC2053 # a pattern
        [[ $said == ${prints[$program]} ]] || fail "$program by $name printed: $said"
    done
    echo "$name: ${programs[*]}"
done
if [[ -x $work/cmake/panel/panel ]]; then echo "cmake: panel"; fi
