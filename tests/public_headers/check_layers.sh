#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_layers.sh SOURCE_DIR: who may include what. A layer that reaches into another one cannot be
# tested without it, and a simulated controller that shares code with the library shares its faults.
set -euo pipefail
cd "$1"
failed=0

# includes FOLDER...: every include line, as FILE:LINE:TEXT.
includes() { grep -rnE --include='*.h' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include' "$@"; }

# forbid RULE LINES: lines are what breaks the rule.
forbid() {
    if [[ -n $2 ]]; then
        printf '%s:\n%s\n' "$1" "$2" >&2
        failed=1
    fi
}

# Includes in quotes in folder $1 that are found neither beside the file nor in the folders $2...,
# or that climb out by "..".
from_outside() {
    local folder=$1 file line text name root known
    shift
    while IFS=: read -r file line text; do
        name=$(sed -E 's/[^"]*"([^"]+)".*/\1/' <<<"$text")
        known=false
        for root in "$(dirname "$file")" "$@"; do
            if [[ -f $root/$name && $name != *..* ]]; then known=true; fi
        done
        "$known" || echo "$file:$line:$text"
    done < <(includes "$folder" | grep '"')
}

for folder in include src tools/jovu python sim; do
    [[ -n $(includes "$folder") ]] || { echo "$folder includes nothing?" >&2; exit 1; }
done

# The modules of the library, and what each may include beside itself and the public headers.
declare -A modules=(
    [base]=''
    [json]='base'
    [usb]='base'
    [core]='base json usb'
    [commands]='base json core'
    [events]='base json core'
    [jobs]='base json usb'
    [dfu]='base'
)
# The folders of the simulated controller, likewise.
declare -A simulator=(
    [firmware/base]=''
    [firmware/servo]='firmware/base'
    [firmware/machine]='firmware/base firmware/servo'
    [firmware/commands]='firmware/base firmware/machine'
    [firmware/usb]='firmware/base firmware/machine firmware/commands'
    [device]='firmware/base firmware/usb'
    [bus]='device firmware/base firmware/usb'
    [usbip]='device firmware/base firmware/usb'
    [tool]='bus usbip device firmware/base firmware/usb'
)

# module ROOT FOLDER ALLOWED: the includes of one folder. A source and its header count as one file.
module() {
    local lines
    lines=$(includes "$1/$2" | grep '"')
    forbid "$1/$2 may include $3 only" "$(grep -vE "\"(${3// /|})/" <<<"$lines" || true)"
    forbid "the files of $1/$2 include one another in a circle" \
        "$(sed -nE "s#^.*/([a-z_]+)\.(h|cpp):[0-9]+:.*\"$2/([a-z_]+)\.h\".*#\1 \3#p" <<<"$lines" |
            { tsort 2>&1 >/dev/null || true; })"
}

for folder in src/*/; do
    name=$(basename "$folder")
    [[ -v modules[$name] ]] || { forbid "a module that is not in the list" "$folder"; continue; }
    module src "$name" "$(xargs <<<"jovu $name ${modules[$name]}")"
done
while IFS= read -r folder; do
    [[ -v simulator[${folder#sim/}] ]] || { forbid "a module that is not in the list" "$folder"; continue; }
    module sim "${folder#sim/}" "$(xargs <<<"${folder#sim/} ${simulator[${folder#sim/}]}")"
done < <(find sim -name '*.cpp' -printf '%h\n' | sort -u)

# What the program may use of the library's sources: the table of commands and the lists of members.
library_door='"commands/(catalogue|structures|type_names)\.h"'
# The folders of the program, lowest first: a folder includes itself and those before it.
program_folders=' cli posix terminal firmware session progress trace update shell monitor fleet commands '
for folder in tools/jovu/*/; do
    name=$(basename "$folder")
    [[ $program_folders == *" $name "* ]] || { forbid "a folder that is not in the list" "$folder"; continue; }
    above=${program_folders#* "$name" }
    [[ -z $above ]] || forbid "tools/jovu/$name may not include ${above% }" \
        "$(includes "$folder" | grep -E "\"(${above// /|}-)/" | grep -vE "$library_door" || true)"
    forbid "the files of tools/jovu/$name include one another in a circle" \
        "$(includes "$folder" |
            sed -nE "s#^.*/([a-z_]+)\.(h|cpp):[0-9]+:.*\"$name/([a-z_]+)\.h\".*#\1 \3#p" |
            { tsort 2>&1 >/dev/null || true; })"
done

forbid "the connection to a broker uses its own headers, and a lock and an owner of the program's" \
    "$(from_outside tools/mqtt tools | grep -vE '"posix/(mutex|files)\.h"' || true)"
forbid "only tools/mqtt may name mosquitto.h" \
    "$(grep -rnE '\b(mosquitto|mqtt_protocol)\.h' include src tools | grep -v '^tools/mqtt/' || true)"
module tools bridge 'jovu bridge mqtt cli posix terminal firmware'
forbid "only src/usb may name libusb.h" \
    "$(grep -rn '\blibusb\.h' include src tools | grep -v '^src/usb/' || true)"
forbid "only the messages and what is above them may use JSON" "$(includes src/usb src/base | grep '<yajl/' || true)"
forbid "the program stands on the public headers, the table of commands and the connection to a broker" \
    "$(from_outside tools/jovu tools/jovu include |
        grep -vE "$library_door|^tools/jovu/fleet/[^:]*:[0-9]*:#include \"mqtt/" || true
       includes tools | grep -E '<(libusb|yajl)' || true)"
forbid "the Python package stands on the public headers and the table of commands alone" \
    "$(from_outside python/src python/src include | grep -vE "$library_door" || true
       includes python | grep -E '<(libusb|yajl)' || true)"
forbid "the simulated controller shares nothing with the library" \
    "$(from_outside sim sim; includes sim | grep -E '<(jovu/|libusb|yajl)' || true)"

exit "$failed"
