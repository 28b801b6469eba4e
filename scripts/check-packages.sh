#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages from the files of the source tree, runs lintian, and installs them in a
# new Debian system in a folder: there it runs the tests of debian/tests, purges the packages, and
# compares the system with what it was before. Nothing is installed on this system.
#
#   scripts/check-packages.sh [--no-build] [FOLDER]
#
# The packages are kept in FOLDER, build/packages by default. With --no-build those that are there
# are checked.
# Needs what "scripts/install-packages.sh packages" installs, and, for the new system, root or user
# namespaces, and the Debian archive that this system is installed from.
set -euo pipefail
cd "$(dirname "$0")/.."
build=true
if [[ ${1:-} == --no-build ]]; then
    build=false
    shift
fi
folder=$(realpath -m "${1:-build/packages}")
mkdir -p "$folder"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
title() { printf '\n== %s\n' "$1"; }

scripts/check-version.sh
# A copy: nothing is written into the source tree, and what git does not know is left out.
mkdir "$work/libjovu"
git ls-files -z --cached --others --exclude-standard |
    xargs -0 cp --parents --no-dereference -t "$work/libjovu"
if "$build"; then
    title "build"
    (cd "$work/libjovu" && DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=$(nproc)}" \
        dpkg-buildpackage -us -uc -b) >"$folder/build.log" 2>&1 || {
        tail -n 60 "$folder/build.log" >&2
        echo "check-packages: the build failed; see $folder/build.log" >&2
        exit 1
    }
    rm -f "$folder"/*.{deb,changes,buildinfo}
    cp "$work"/*.{deb,changes,buildinfo} "$folder"
    (cd "$work/libjovu" && debian/rules clean) >>"$folder/build.log" 2>&1
fi
for package in "$folder"/*.deb; do
    [[ $package != *-dbgsym_* ]] || continue
    echo "${package##*/}"
    dpkg-deb --contents "$package" | awk '$6 !~ /\/$/ {sub(/^\./, "", $6); print "    " $6}'
done

title "lintian"
lintian -EvIL +pedantic --fail-on error,warning,info,pedantic --tag-display-limit 0 \
    "$folder"/*.changes

title "install, test, purge in a new system"
# Runs in the new system, as its root, after the packages that the tests need are there.
cat >"$work/inside" <<'END'
#!/bin/bash
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
# Every path with its kind and mode, less the logs and lists that any installation changes.
state() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp \
        -o -path /var/log -o -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg \
        -o -path /packages \) -prune -o -printf '%y %m %p\n' | sort
    dpkg-query -W -f '${db:Status-Abbrev} ${Package}\n'
    (cd /var/lib/dpkg && ls info | sort && cat diversions statoverride 2>/dev/null) || true
}
# Installed and purged: these packages and what they alone need.
state >/tmp/before
installed() { dpkg-query -W -f '${Package}\n' | sort; }
installed >/tmp/packages-before
apt-get install -y -qq --no-install-recommends /packages/*.deb >/tmp/apt.log 2>&1 ||
    { cat /tmp/apt.log; exit 1; }
dpkg-query -W 'libjovu*' 'jovu*'
for test in program bridge build; do
    echo "-- debian/tests/$test"
    mkdir "/tmp/$test"
    (cd /packages/source && AUTOPKGTEST_TMP=/tmp/$test "debian/tests/$test")
done
echo "-- man page"
man jovu-bridge >/tmp/page-bridge
man jovu >/tmp/page
head -n 12 /tmp/page
echo "-- purge"
mapfile -t added < <(installed | comm -13 /tmp/packages-before -)
dpkg --purge "${added[@]}" >/tmp/purge.log 2>&1 || { cat /tmp/purge.log; exit 1; }
state >/tmp/after
diff /tmp/before /tmp/after && echo "nothing is left of ${#added[@]} packages"
END
chmod +x "$work/inside"
mkdir "$work/packages"
cp "$folder"/*.deb "$work/packages"
rm -f "$work"/packages/*-dbgsym_*.deb
cp -r "$work/libjovu" "$work/packages/source"
needs=$(awk '/^Depends:/ {sub(/^Depends: */, ""); gsub(/,/, ""); print}' debian/tests/control |
    tr ' ' '\n' | grep -vE 'jovu' | sort -u | paste -sd,)
# mmdebstrap makes the system in TMPDIR, which must not be mounted without device files.
mmdebstrap --variant=apt --include="$needs,man-db" \
    --dpkgopt='path-include=/usr/share/man/*' \
    --customize-hook="copy-in $work/packages /" \
    --customize-hook="copy-in $work/inside /tmp" \
    --customize-hook='chroot "$1" /tmp/inside' \
    "$(. /etc/os-release && echo "$VERSION_CODENAME")" /dev/null \
    >"$work/system.log" 2>&1 || { cat "$work/system.log" >&2; exit 1; }
sed -n '/^libjovu/,$p' "$work/system.log" | grep -v '^I: '
echo "check-packages: passed; packages in $folder"
