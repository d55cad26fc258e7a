#!/bin/sh
# Finishes the emulated board's root file system: does what the packages' scripts would have done, as far as
# needed, and removes what the board does not use.
set -eu
root=$1
PATH=/usr/sbin:/usr/bin:/sbin:/bin

rm -rf "$root"/usr/share/doc "$root"/usr/share/man "$root"/usr/share/locale "$root"/usr/share/info \
    "$root"/usr/share/mime "$root"/usr/lib/linux-image-* "$root"/usr/lib/udev/hwdb.d \
    "$root"/var/lib/dpkg "$root"/var/cache/apt "$root"/var/lib/apt

# An empty database, so that a package can be installed.
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
: >"$root/var/lib/dpkg/status"

# Keeps only the kernel modules that the board uses, with their dependencies.
version=$(ls "$root/usr/lib/modules")
modules=$root/usr/lib/modules/$version
depmod --basedir "$root/usr" "$version"
needed=
for module in virtio_pci virtio_blk virtio_console sdhci-pci mmc_block ext4 crc32c_generic overlay \
    leds-gpio ledtrig-timer ledtrig-default-on vfat nls_cp437 nls_ascii nls_iso8859-1 loop; do
    # Not in a pipeline, which would hide that a module is missing.
    needed="$needed
$(modprobe --dirname "$root/usr" --set-version "$version" --show-depends "$module")"
done
keep=$(printf '%s\n' "$needed" | sed -n 's/^insmod \([^ ]*\).*/\1/p' | sort -u)
find "$modules/kernel" -name '*.ko' | sort | while IFS= read -r file; do
    case "
$keep
" in
        *"
$file
"*) ;;
        *) rm "$file" ;;
    esac
done
find "$modules/kernel" -type d -empty -delete
depmod --basedir "$root/usr" "$version"

cp "$root/usr/share/base-passwd/passwd.master" "$root/etc/passwd"
cp "$root/usr/share/base-passwd/group.master" "$root/etc/group"
for group in kvm:101 input:102 render:103 sgx:104 messagebus:105; do
    echo "${group%:*}:x:${group#*:}:" >>"$root/etc/group"
done
echo "messagebus:x:105:105::/nonexistent:/usr/sbin/nologin" >>"$root/etc/passwd"
echo board >"$root/etc/hostname"
ln -sf mawk "$root/usr/bin/awk"
rm -rf "$root/var/run"
ln -s ../run "$root/var/run"
rm -f "$root/etc/mtab"
ln -s ../proc/self/mounts "$root/etc/mtab"
mkdir -p "$root/proc" "$root/sys" "$root/dev" "$root/run" "$root/tmp" "$root/media" "$root/mnt"
