#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that are missing. Does nothing, and needs no privileges, when
# everything is there.
#
#   scripts/install-packages.sh demo     what building and trying the programs takes
#   scripts/install-packages.sh test     that, and what the tests and checks take
#   scripts/install-packages.sh packages what building and checking the Debian packages takes
#   scripts/install-packages.sh --list demo|test|packages
set -euo pipefail

demo_packages=(
    g++ cmake ninja-build pkg-config
    libusb-1.0-0-dev libyajl-dev zlib1g-dev   # the library
    libcli11-dev nlohmann-json3-dev           # the jovu program
    libedit-dev libncurses-dev                # its prompt, its monitor
    libmosquitto-dev                          # its connection to a message broker
    libcurl4-openssl-dev libssl-dev libsqlite3-dev libsystemd-dev   # the bridge
    libtomlplusplus-dev prometheus-cpp-dev
    gnuplot-nox dfu-util                      # its plots, its firmware updates
    libumockdev-dev umockdev                  # the simulated controller
    jq                                        # reads JSON in the demo
)
# clang-format and clang-tidy carry their version: another one formats and finds differently.
test_packages=(
    "${demo_packages[@]}"
    libgtest-dev libgmock-dev libbenchmark-dev
    libudev-dev                               # what libusb's pkg-config file names for static linking
    locales                                   # the source of a locale with a decimal comma
    tshark                                    # captures, read by the dissector for Wireshark
    mosquitto mosquitto-clients openssl       # a broker, its clients, and its certificates
    sqlite3                                   # damages the journal of the bridge
    prometheus python3-matplotlib             # alert rules, and a picture of the dashboard
    bash-completion mandoc                    # for the completion and the manual pages
    qt6-base-dev libqt6opengl6-dev qt6-charts-dev  # the panel among the examples
    xvfb xauth fonts-dejavu-core                   # an X server for its test
    qemu-system-x86 udev busybox-static binutils usbip   # the virtual machine for tests on a kernel
    clang lld libclang-rt-14-dev clang-format-14 clang-tidy-14
    python3 doxygen                           # the check of the documentation
    python3-dev pybind11-dev python3-numpy        # the Python package
    python3-pytest python3-mypy python3-matplotlib  # its tests, its example
)

# What builds and checks the Debian packages, beside what building takes.
packages_packages=(
    dpkg-dev debhelper doxygen lintian mmdebstrap
    dh-python python3-dev pybind11-dev
)

# Packages that start a server of the same name when they are installed.
services=(mosquitto prometheus)

usage() { sed -n '3,/^set /s/^# \{0,1\}//p' "$0"; }

list_only=false
if [[ ${1:-} == --list ]]; then
    list_only=true
    shift
fi
case ${1:-} in
    demo) packages=("${demo_packages[@]}") ;;
    test) packages=("${test_packages[@]}") ;;
    packages) packages=("${demo_packages[@]}" "${packages_packages[@]}") ;;
    -h | --help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
esac
if "$list_only"; then
    printf '%s\n' "${packages[@]}"
    exit 0
fi

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "install-packages: this is not a Debian system. Install what it calls these packages:" >&2
    echo "    ${packages[*]}" >&2
    exit 1
fi

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status} ' "$package" 2>/dev/null) || status=
    [[ " $status" == *" installed "* ]] || missing+=("$package")
done
if [[ ${#missing[@]} -eq 0 ]]; then
    echo "all ${#packages[@]} packages are there"
    exit 0
fi

as_root=()
if [[ $(id -u) -ne 0 ]]; then
    if ! command -v sudo >/dev/null; then
        echo "install-packages: neither root nor sudo. Have an administrator run:" >&2
        echo "    apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "installing: ${missing[*]}"
apt() { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -o Acquire::Retries=3 "$@"; }
apt update
apt install -y --no-install-recommends "${missing[@]}"

# The tests start what they need themselves. A server of the whole system would stay behind.
if [[ -d /run/systemd/system ]]; then
    for service in "${services[@]}"; do
        [[ " ${missing[*]} " != *" $service "* ]] ||
            "${as_root[@]}" systemctl --quiet disable --now "$service" || true
    done
fi
