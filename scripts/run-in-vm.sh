#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs a program on a Debian kernel with USB, in a virtual machine that exists as long as it runs.
#
#   scripts/run-in-vm.sh [OPTION...] -- PROGRAM [ARGUMENT...]
#   scripts/run-in-vm.sh --prepare     only fetches the kernel, if it is not there
#
#   --timeout SECONDS   ends the machine after that time, 600 by default
#   --listen SOCKET     connects the machine by Ethernet to another one, which is started with
#   --connect SOCKET    that, and the same path; they are 10.0.0.1 and 10.0.0.2
#
# The program runs as root, in this folder and with PATH and the variables JOVU_* of the caller. It
# sees the files of this system; what it changes is lost with the machine, so it prints its
# results. vhci-hcd is loaded and systemd-udevd runs. Output appears at once, standard error with
# it; there is no input. A benchmark, for example:
#
#     scripts/run-in-vm.sh -- build/release/bin/jovu-sim attach -- build/release/bin/jovu_bench
#
# The machine has one processor, which is emulated: it needs no KVM, and is 5 to 20 times as slow.
#
# Exit status: that of the program; 77 when this system cannot run such a machine, with the reason in
# the last line; 125 when the machine ended without a result; 2 for a wrong option. Needs no
# privileges. The kernel is Debian's, fetched by apt-get and kept in build/kernel.
set -euo pipefail
project=$(cd "$(dirname "$0")/.." && pwd)
kernel=$project/build/kernel
modules="virtio_pci virtio_console 9pnet_virtio 9p overlay vhci-hcd virtio_net"

usage() { sed -n '3,/^set /s/^# \{0,1\}//p' "$0"; }
wrong_usage() { echo "run-in-vm: $1 (see --help)" >&2; exit 2; }
cannot_run() { echo "run-in-vm: $1" >&2; exit 77; }

prepare_only=false limit=600 network=() address=
while [[ $# -gt 0 ]]; do
    case $1 in
        --timeout | --listen | --connect) [[ $# -ge 2 ]] || wrong_usage "$1 needs a value" ;;
    esac
    case $1 in
        --prepare) prepare_only=true; shift ;;
        --timeout)
            [[ $2 =~ ^[1-9][0-9]*$ ]] || wrong_usage "not a number of seconds: $2"
            limit=$2; shift 2 ;;
        --listen | --connect)
            number=1 server=on
            [[ $1 == --listen ]] || number=2 server=off
            address=10.0.0.$number/24
            network=(-netdev "stream,id=net,server=$server,addr.type=unix,addr.path=$2"
                -device "virtio-net-pci,netdev=net,romfile=,mac=52:54:00:00:00:0$number")
            shift 2 ;;
        --) shift; break ;;
        -h | --help) usage; exit 0 ;;
        *) wrong_usage "unknown option: $1" ;;
    esac
done
"$prepare_only" || [[ $# -gt 0 ]] || wrong_usage "no program"

[[ $(uname -m) == x86_64 ]] || cannot_run "not an x86-64 system"
for program in qemu-system-x86_64 /lib/systemd/systemd-udevd busybox strings python3 apt-get; do
    command -v "$program" >/dev/null || cannot_run "$program is not installed"
done

work=$(mktemp -d)
machine=
cleanup() {
    [[ -z $machine ]] || kill "$machine" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# Copies a module into $work/kernel, and appends its name to the list there behind those of the
# modules that it needs. A module that is listed already, or part of the kernel, is skipped.
add_module() {
    local name=${1//_/-} file needed
    if grep -qx "$name" "$work/kernel/order"; then return 0; fi
    file=$(find "$work/image/lib/modules" -name "$name.ko" -o -name "${name//-/_}.ko")
    [[ -n $file ]] || return 0
    for needed in $(strings -a "$file" | sed -n 's/^depends=//p' | tr , ' '); do
        add_module "$needed"
    done
    cp "$file" "$work/kernel/$name.ko"
    echo "$name" >>"$work/kernel/order"
}
fetch_package() {
    local package
    package=$(apt-cache depends linux-image-amd64 | sed -n 's/^ *Depends: \(.*\)$/\1/p' | head -n 1)
    [[ -n $package ]] || { echo "apt has no package linux-image-amd64"; return 1; }
    # apt-get compares what it has downloaded with the archive's checksum.
    (cd "$work" && apt-get download -q -o Acquire::Retries=3 "$package")
}
fetch_kernel() {
    local module
    # The lists of packages may be missing, or too old for what the archive has.
    fetch_package || { [[ $(id -u) -eq 0 ]] && apt-get -q update && fetch_package; } || return 1
    dpkg-deb -x "$work"/linux-image-*.deb "$work/image" || return 1
    mkdir "$work/kernel"
    : >"$work/kernel/order"
    for module in $modules; do add_module "$module"; done
    # Unpacked here once; the emulated processor would take seconds for it at each start.
    python3 -c 'import lzma, sys
image = sys.stdin.buffer.read()
packed = image[image.index(b"\xfd7zXZ\0"):]
sys.stdout.buffer.write(lzma.LZMADecompressor().decompress(packed))' \
        <"$(echo "$work"/image/boot/vmlinuz-*)" >"$work/kernel/vmlinux" || return 1
    echo "$modules" >"$work/kernel/modules"
    (cd "$work/kernel" && sha256sum -- * >"$work/sums" && mv "$work/sums" sums) || return 1
    mkdir -p "$project/build"
    rm -rf "$kernel" "$kernel.new"
    cp -r "$work/kernel" "$kernel.new" && mv "$kernel.new" "$kernel" && rm -r "$work/image"
}
# Whether the kernel is there, for these modules and undamaged.
have_kernel() {
    [[ $(cat "$kernel/modules" 2>/dev/null) == "$modules" ]] &&
        (cd "$kernel" && sha256sum --status --check sums 2>/dev/null)
}
if ! have_kernel; then
    fetch_kernel >"$work/fetch.log" 2>&1 || {
        cat "$work/fetch.log" >&2
        cannot_run "the kernel package cannot be fetched: $(grep -v "^W:" "$work/fetch.log" | tail -n 1)"
    }
fi
if "$prepare_only"; then exit 0; fi

# The first file system of the machine, in memory: its first process and the modules.
mkdir -p "$work/initramfs"/{bin,proc,sys,dev,files,memory,root}
cp "$(command -v busybox)" "$work/initramfs/bin/busybox"
cp "$kernel"/*.ko "$kernel/order" "$work/initramfs"
{
    declare -p PATH "${!JOVU_@}"
    printf 'address=%q folder=%q\n' "$address" "$PWD"
    printf 'program=('; printf '%q ' "$@"; echo ')'
} >"$work/initramfs/settings"
cat >"$work/initramfs/init" <<'END'
#!/bin/busybox sh
PATH=/bin
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
while read -r module; do insmod "/$module.ko"; done </order
# The files of the host, read-only, below what this machine writes.
mount -t 9p -o ro,trans=virtio,version=9p2000.L,msize=512000,cache=loose files /files
mount -t tmpfs memory /memory
mkdir /memory/changes /memory/work
mount -t overlay -o lowerdir=/files,upperdir=/memory/changes,workdir=/memory/work overlay /root
for folder in proc sys dev; do mount --move "/$folder" "/root/$folder"; done
mount -t tmpfs run /root/run
mkdir -p /root/run/machine /root/dev/pts /root/dev/shm
mount -t devpts devpts /root/dev/pts
mount -t tmpfs shm /root/dev/shm
ln -s /proc/self/fd /root/dev/fd
cp /settings /run-program /bin/busybox /root/run/machine
exec chroot /root /bin/bash /run/machine/run-program
END
cat >"$work/initramfs/run-program" <<'END'
source /run/machine/settings
busybox=/run/machine/busybox
"$busybox" ip link set lo up
if [[ -n $address ]]; then
    "$busybox" ip address add "$address" dev eth0
    "$busybox" ip link set eth0 up
fi
/lib/systemd/systemd-udevd --daemon
cd "$folder"
status=0
# A session of its own: the first process of a system ignores signals.
setsid "${program[@]}" </dev/null >/dev/vport*p1 2>&1 || status=$?
echo "$status" >/dev/vport*p2
"$busybox" poweroff -f
END
chmod +x "$work/initramfs/init"
(cd "$work/initramfs" && find . | busybox cpio -o -H newc 2>/dev/null) >"$work/initramfs.cpio"

# One processor: two of them become erratic on a busy host. The program's output goes through a pipe,
# because QEMU opens it anew, which a socket does not permit.
status=0
qemu=(qemu-system-x86_64 -accel tcg -cpu qemu64,+rdrand -smp 1 -m 1024
    -nodefaults -no-user-config -display none -no-reboot -M pc,hpet=off
    -kernel "$kernel/vmlinux" -initrd "$work/initramfs.cpio"
    -append "console=ttyS0 loglevel=4 panic=-1 mitigations=off random.trust_cpu=on
        tsc=reliable no_timer_check"
    -serial "file:$work/console"
    -fsdev local,id=files,path=/,security_model=none,readonly=on,multidevs=remap
    -device virtio-9p-pci,fsdev=files,mount_tag=files
    -device virtio-serial-pci
    -chardev file,id=output,path=/proc/self/fd/1,append=on
    -device virtserialport,chardev=output,nr=1
    -chardev "file,id=status,path=$work/status"
    -device virtserialport,chardev=status,nr=2
    "${network[@]}")
# Ends with this script, also when that is killed.
setpriv --pdeathsig TERM timeout --foreground --kill-after 5 "$limit" "${qemu[@]}" \
    </dev/null 2>"$work/qemu.log" > >(cat) &
machine=$!
wait "$machine" || status=$?
machine=
[[ ! -s $work/status ]] || exit "$(cat "$work/status")"
{
    if [[ $status -eq 124 ]]; then
        echo "run-in-vm: the machine did not end within $limit s"
    else
        echo "run-in-vm: the machine ended without a result, QEMU with status $status"
    fi
    cat "$work/qemu.log" "$work/console" 2>/dev/null | tail -n 40
} >&2
exit 125
