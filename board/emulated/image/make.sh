#!/bin/sh
# Makes what the emulated board boots: kernel, initial RAM disk, device tree and root file system.
# Prints the directory. Keeps what is up to date; SDCARDD_ARMHF_DIR overrides the place.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
cache=${SDCARDD_ARMHF_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/sdcardd}
root=$cache/image-root
image=$cache/image
PATH=/usr/sbin:/usr/bin:/sbin:/bin

# The LPAE kernel: the other one changes a register at each system call to protect the programs' memory, and the
# emulator then discards all its address translations.
"$here/../../../cmake/armhf-root.sh" "$root" --hook "$here/finish-root.sh" \
    base-files base-passwd libc-bin dash coreutils sed grep findutils mawk debianutils procps psmisc \
    mount util-linux bsdutils fdisk e2fsprogs dosfstools lsof sysvinit-core kmod udev \
    dbus dbus-daemon dbus-bin python3 bash strace socat busybox-static linux-image-armmp-lpae \
    python3-jeepney dpkg diffutils tar perl-base init-system-helpers sysvinit-utils \
    libqt5core5a libqt5dbus5 libqt5test5 liblog4cxx15 libfdisk1 libxml2-utils

made_from=$(cat "$root/made-from" "$0" "$here/init" | sha256sum; qemu-system-arm --version | head -n 1)
if [ "$(cat "$image/made-from" 2>/dev/null)" = "$made_from" ]; then
    echo "$image"
    exit 0
fi

echo "Making $image" >&2
new=$(mktemp -d "$image.XXXXXX")
trap 'rm -rf "$new"' EXIT
trap 'exit 1' HUP INT TERM
version=$(ls "$root/usr/lib/modules")
cp "$root/boot/vmlinuz-$version" "$new/kernel"

# The initial RAM disk: only what mounts the root file system.
disk=$new/disk
mkdir -p "$disk/bin" "$disk/proc" "$disk/sys" "$disk/dev" "$disk/lower" "$disk/upper" "$disk/root"
cp "$root/usr/bin/busybox" "$disk/bin/busybox"
cp "$here/init" "$disk/init"
needed=
for module in virtio_pci virtio_blk crc32c_generic ext4 overlay; do
    needed="$needed
$(modprobe --dirname "$root/usr" --set-version "$version" --show-depends "$module")"
done
printf '%s\n' "$needed" | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' | while IFS= read -r file; do
    cp "$file" "$disk/"
    basename "$file" >>"$disk/modules"
done
(cd "$disk" && find . | cpio --quiet --create --format=newc --owner=0:0) >"$new/disk.cpio"
rm -rf "$disk"

# The machine's own device tree, with two LEDs beside the slot instead of a power button.
qemu-system-arm -M virt,highmem=off,dumpdtb="$new/board.dtb" -cpu cortex-a7 -smp 1 -m 256 -nodefaults \
    -display none >/dev/null 2>&1
gpio=$(fdtget -t x "$new/board.dtb" /pl061@9030000 phandle)
fdtput -r "$new/board.dtb" /gpio-keys
fdtput -cp "$new/board.dtb" /leds/mmc-red /leds/mmc-green
fdtput -t s "$new/board.dtb" /leds compatible gpio-leds
for led in red:0 green:1; do
    fdtput -t s "$new/board.dtb" "/leds/mmc-${led%:*}" label "mmc-${led%:*}"
    fdtput -t x "$new/board.dtb" "/leds/mmc-${led%:*}" gpios "$gpio" "${led#*:}" 0
done

# Read-only on the board, so no journal.
mke2fs -q -t ext4 -O ^has_journal -d "$root" "$new/root.ext4" 200m >/dev/null
printf '%s\n' "$made_from" >"$new/made-from"
rm -rf "$image"
mv "$new" "$image"
echo "$image"
