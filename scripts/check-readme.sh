#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Carries out what README.md tells a newcomer, as it is written there, on a Debian system that has
# nothing but its base: the blocks of shell commands in their order, with the program that stands
# between them saved under the name that the text gives it, and ./demo.sh.
#
#   scripts/check-readme.sh        takes the state that is committed
#
# Needs root, the package mmdebstrap and the package mirrors that this system uses.
set -euo pipefail
cd "$(dirname "$0")/.."

root=$(mktemp -d)
leave() {
    umount "$root/proc" "$root/sys" "$root/dev/pts" 2>/dev/null || true
    rm -rf --one-file-system "$root"
}
trap leave EXIT
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
mmdebstrap --quiet --variant=apt --include=ca-certificates "$suite" "$root"
cp /etc/resolv.conf "$root/etc/"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t devpts devpts "$root/dev/pts"
mkdir "$root/libjovu"
git archive HEAD | tar -x -C "$root/libjovu"

# The README as a script. A block of C++ goes to the file that the line before it names.
awk '
    /^```sh$/  { kind = "sh"; next }
    /^```cpp$/ { kind = "cpp"; print "cat >\"" file "\" <<\"END OF FILE\""; next }
    /^```$/    { if (kind == "cpp") print "END OF FILE"; kind = ""; next }
    kind != "" { print; next }
    match($0, /`[a-z_]+\.cpp`/) { file = substr($0, RSTART + 1, RLENGTH - 2) }
' README.md >"$root/readme.sh"
grep -q 'END OF FILE' "$root/readme.sh" || { echo "check-readme: README.md has no program" >&2; exit 1; }

inside() {
    env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb \
        chroot "$root" bash -euo pipefail -c "cd /libjovu && $1"
}
inside 'set -x; . /readme.sh' | tee "$root/said"
grep -qx 'firmware 1\.0\.0' "$root/said" || {
    echo "check-readme: the first program did not find the controller" >&2
    exit 1
}
inside ./demo.sh
