#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Exports a simulated controller from one virtual machine, and attaches it in another one with the
# usbip program of Debian. Prints the session in the second machine.
#
#   two_machines.sh FOLDER
#
# FOLDER has the programs. Exit status: 0 when all commands have succeeded.
set -euo pipefail
programs=$(realpath "$1")
cd "$(dirname "$0")/../.."
work=$(mktemp -d)
server=
trap '[[ -z $server ]] || kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT

cat >"$work/session" <<'END'
set -euo pipefail
show() { printf '\n$ %s\n' "$*"; "$@"; }
for ((tries = 0; tries < 60; ++tries)); do
    ! usbip list -r 10.0.0.1 >/dev/null 2>&1 || break
    sleep 1
done
show usbip list -r 10.0.0.1
show usbip attach -r 10.0.0.1 -b 1-1
show jovu --wait-device 60 list
show jovu info
show jovu push README.md
show usbip port
show usbip detach -p 0
while [[ -e /sys/bus/usb/devices/1-1 ]]; do sleep 0.1; done
status=0
show jovu list || status=$?
[[ $status -eq 3 ]] # no device
END
export PATH=$programs:$PATH
scripts/run-in-vm.sh --listen "$work/link" -- jovu-sim serve --listen 10.0.0.1:3240 &
server=$!
until [[ -S $work/link ]]; do
    kill -0 "$server" # ends this script when the first machine has ended
    sleep 0.1
done
scripts/run-in-vm.sh --timeout 300 --connect "$work/link" -- bash "$work/session"
