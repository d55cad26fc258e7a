#!/bin/sh
# Makes a card usable for the SD card service: one Linux partition with an ext4 file system. It never
# formats a card with ext4: if the partition table has an error, it repairs the table.
#
# Usage: tavo-create-sdcardFS.sh [DEVICE]
#
# Exit status: 0 when the file system stayed, 99 when a file system was made, 1 with a reason on
# standard error when that failed. DEVICE must be the configured card; it is the default.
#
# Configuration: /etc/default/tavo-sdcard may set CARD_DEVICE, the card's whole disk.
set -u
PATH=/usr/sbin:/usr/bin:/sbin:/bin
LC_ALL=C
export PATH LC_ALL
umask 077

CARD_DEVICE=/dev/mmcblk0
CONFIGURATION=/etc/default/tavo-sdcard
LOCK=/run/tavo-create-sdcardFS.lock
FIRST_SECTOR=2048  # of 512 bytes: 1 MiB, a multiple of every erase block
USUAL_STARTS="$FIRST_SECTOR 63 8192 16384 32768 65536"  # of the first partition, by this script and by others
SMALLEST_SECTORS=32768
NODE_TRIES=100     # of 0.1 s
UNFINISHED=unfinished-card

fail() {
    echo "${0##*/}: $1" >&2
    exit 1
}

# Prints "major:minor" of a device node; fails silently if the node is gone.
device_number() {
    stat --dereference --format='%Hr:%Lr' "$1" 2>/dev/null
}

is_mounted() {
    while read -r _ _ number _; do
        for known in "$sysfs"/dev "$sysfs"/*/dev; do
            [ -r "$known" ] && [ "$(cat "$known" 2>/dev/null)" = "$number" ] && return 0
        done
    done </proc/self/mountinfo
    return 1
}

# Reads the partition table: sets its label, the number of its entries, "start:size" (in sectors) of each
# as places, and start and size of the last one.
read_table() {
    start='' size='' places='' partitions=0 label=''
    table=$(sfdisk --dump "$pinned" 2>/dev/null) || return 1
    while IFS= read -r line; do
        case $line in
            'label: '*) label=${line#label: } ;;
            *' : start='*)
                partitions=$((partitions + 1))
                start=$(echo "$line" | sed -n 's/.*start= *\([0-9]*\).*/\1/p')
                size=$(echo "$line" | sed -n 's/.*size= *\([0-9]*\).*/\1/p')
                places="$places $start:$size"
                ;;
        esac
    done <<EOF
$table
EOF
}

# Whether the table has one entry, the first, for a Linux partition on the card. The kernel ignores a table
# with a status other than 00 and 80 in any entry.
has_expected_table() {
    [ "$label" = dos ] && [ "$partitions" -eq 1 ] && [ $((start + size)) -le "$sectors" ] &&
        od -A n -v -t x1 -j 446 -N 64 "$pinned" | awk '
            $1 != "00" && $1 != "80" || NR == 1 && $5 != "83" { bad = 1 } END { exit bad }'
}

# Prints the type of the file system at a sector, whatever the kernel knows of it.
file_system_at() {
    tags=$(blkid --probe --offset $(($1 * 512)) --output export "$pinned" 2>/dev/null)
    type=$(echo "$tags" | sed -n 's/^TYPE=//p')
    # blkid does not recognise ext4 with a damaged superblock, or beside another signature; e2fsck may.
    magic=$(od -A n -t x2 -j $(($1 * 512 + 1080)) -N 2 "$pinned" 2>/dev/null | tr -d ' ')
    [ -n "$type" ] || [ "$magic" != ef53 ] || type=ext4
    if [ "$type" = ext4 ]; then
        # Inside ext4 there are copies of its superblock, with the number of their group.
        group=$(od -A n -t u2 -j $(($1 * 512 + 1024 + 90)) -N 2 "$pinned")
        [ $((group)) -eq 0 ] || return
        case $tags in
            *"LABEL=$UNFINISHED"*) type=unfinished-ext4 ;;
        esac
    fi
    echo "$type"
}

# Prints the size in sectors of the ext4 file system at a sector.
ext4_size_at() {
    dumpe2fs -h "$pinned?offset=$(($1 * 512))" 2>/dev/null | awk -F ':' '
        $1 == "Block count" { count = $2 }
        $1 == "Block size" { bytes = $2 }
        END { printf "%.0f", count * bytes / 512 }'
}

# A file system that cannot be read would look like none.
require_readable() {
    [ $(($1 + 8)) -gt "$sectors" ] || dd if="$pinned" of=/dev/null bs=512 skip="$1" count=8 status=none 2>/dev/null ||
        fail "$card cannot be read at sector $1"
}

# Looks for ext4 where the table says, and then where this script and others make it. Sets start and size of its
# partition, and found: the types of all file systems. What lies below a foreign file system is old.
find_ext4() {
    found='' starts='' start=''
    for place in $places; do
        require_readable "${place%:*}"
        kind=$(file_system_at "${place%:*}")
        found="$found${kind:+ $kind}"
        [ "$kind" != ext4 ] || { start=${place%:*} size=${place#*:} starts="$starts $start"; }
    done
    for place in $USUAL_STARTS; do
        [ -z "$found" ] || break
        require_readable "$place"
        [ "$(file_system_at "$place")" != ext4 ] ||
            { found=' ext4' start=$place size=$((sectors - place)) starts=" $place"; }
    done
    [ "${starts# * }" = "$starts" ] || fail "$card holds more than one ext4 file system"
    [ -n "$start" ] || return 1
    needed=$(ext4_size_at "$start")
    [ "$size" -ge "$needed" ] || size=$((sectors - start))
    [ $((start + size)) -le "$sectors" ] || size=$needed
    [ $((start + size)) -le "$sectors" ] || size=$((sectors - start))
}

write_table() {
    message=$(printf 'label: dos\nstart=%s, size=%s, type=83\n' "$start" "$size" |
        sfdisk --quiet --no-reread --no-tell-kernel --wipe always --wipe-partitions never "$pinned" 2>&1) ||
        fail "no partition table could be written to $card: $message"
    announce_partition || fail "the partition of $card does not appear"
}

# Makes the kernel read the partition table and waits until the node of the partition is the right one.
announce_partition() {
    tries=0
    expected=$(printf '%s\n' "$number_of_card" "$start" "$size")
    partition=${card}1
    case $card in
        *[0-9]) partition=${card}p1 ;;
    esac
    while [ "$tries" -lt "$NODE_TRIES" ]; do
        if [ -b "$partition" ]; then
            # The kernel may be replacing the node at this moment.
            entry=/sys/dev/block/$(device_number "$partition")
            [ "$(cat "$entry/../dev" "$entry/start" "$entry/size" 2>/dev/null)" = "$expected" ] && return 0
        fi
        [ -b "$card" ] || return 1
        # Fails as long as something else, such as udev, has an old partition open. The second step
        # is for kernels that do not read the table by themselves.
        [ $((tries % 10)) -ne 0 ] ||
            { blockdev --rereadpt "$pinned" && partx --update "$pinned"; } >/dev/null 2>&1
        tries=$((tries + 1))
        sleep 0.1
    done
    return 1
}

if [ -r "$CONFIGURATION" ]; then
    # shellcheck source=/dev/null
    . "$CONFIGURATION"
fi
[ $# -le 1 ] || fail "more than one device given"
[ $# -eq 0 ] || [ "$1" = "$CARD_DEVICE" ] || fail "$1 is not the configured card, $CARD_DEVICE"

card=$(readlink --canonicalize "$CARD_DEVICE") || fail "$CARD_DEVICE cannot be resolved"
[ -b "$card" ] || fail "$CARD_DEVICE is not a block device (no card in the slot?)"
number_of_card=$(device_number "$card") || fail "$card is gone"
sysfs=/sys/dev/block/$number_of_card
[ -d "$sysfs" ] || fail "$card is gone"
[ ! -e "$sysfs/partition" ] || fail "$card is a partition, not a card"

command exec 9>"$LOCK" || fail "cannot open $LOCK"
flock --nonblock 9 || fail "$card is being formatted already"

# From here on this open descriptor stands for the card. After a pull, its name may belong to another
# card or to a file that a tool creates; neither is written to.
command exec 8<"$card" || fail "$card cannot be opened"
pinned=/proc/self/fd/8
[ "$(device_number "$pinned")" = "$number_of_card" ] || fail "$card was exchanged"
! is_mounted || fail "$card is mounted"

sectors=$(cat "$sysfs/size" 2>/dev/null) || fail "$card is gone"
read_table
listed=$start:$size
has_ext4=no
! find_ext4 || has_ext4=yes
if [ $has_ext4 = yes ] && [ "$listed" = "$start:$size" ] && has_expected_table; then
    announce_partition || fail "the partition of $card does not appear"
    exit 0
fi

protected=$(cat "$sysfs/ro" 2>/dev/null) || fail "$card is gone"
[ "$protected" = 0 ] || fail "$card is write-protected"
if [ $has_ext4 = yes ]; then
    echo "Repairing the partition table of $card, which holds ext4 at sector $start"
    write_table
    exit 0
fi
[ "$sectors" -ge "$SMALLEST_SECTORS" ] || fail "$card is too small ($sectors sectors)"

# The label goes when the file system is complete, and the table comes last. So a card that is pulled
# before that is formatted again. mke2fs claims the whole disk and fails if any part of it is in use. A
# discard could take longer than the service waits.
start=$FIRST_SECTOR
size=$((sectors - FIRST_SECTOR))
echo "Making an ext4 file system on $card ($((sectors / 2048)) MiB), which holds${found:- no file system}"
message=$(mke2fs -q -F -t ext4 -L "$UNFINISHED" -E "offset=$((start * 512)),nodiscard" "$pinned" "$((size / 2))k" \
    2>&1 </dev/null && tune2fs -L '' "$pinned?offset=$((start * 512))" 2>&1) ||
    fail "no file system could be made on $card: $message"
write_table
[ "$(file_system_at "$start")" = ext4 ] || fail "$card does not hold what was written to it"
exit 99
