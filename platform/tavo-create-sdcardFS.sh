#!/bin/sh
# Makes a card usable for the SD card service: one Linux partition with an ext4 file system.
#
# Usage: tavo-create-sdcardFS.sh [DEVICE]
#
# Exit status: 0 when there was nothing to do, 99 when a file system was made, 1 with a reason on
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
SMALLEST_SECTORS=32768
NODE_TRIES=100     # of 0.1 s

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

# Sets start and size (in sectors) of the partition if the table is as expected.
has_expected_table() {
    start='' size='' partitions=0 label=''
    table=$(sfdisk --dump "$pinned" 2>/dev/null) || return 1
    while IFS= read -r line; do
        case $line in
            'label: '*) label=${line#label: } ;;
            *' : start='*)
                partitions=$((partitions + 1))
                start=$(echo "$line" | sed -n 's/.*start= *\([0-9]*\).*/\1/p')
                size=$(echo "$line" | sed -n 's/.*size= *\([0-9]*\).*/\1/p')
                kind=$(echo "$line" | sed -n 's/.*type=\([0-9a-f]*\).*/\1/p')
                ;;
        esac
    done <<EOF
$table
EOF
    [ "$label" = dos ] && [ "$partitions" -eq 1 ] && [ "$kind" = 83 ]
}

# Whether the bytes of the partition hold an ext4 file system, whatever the kernel knows of it.
has_ext4() {
    found=$(blkid --probe --offset $((start * 512)) --size $((size * 512)) \
        --match-tag TYPE --output value "$pinned" 2>/dev/null)
    [ "$found" = ext4 ]
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

if has_expected_table && has_ext4; then
    announce_partition || fail "the partition of $card does not appear"
    exit 0
fi

protected=$(cat "$sysfs/ro" 2>/dev/null) || fail "$card is gone"
[ "$protected" = 0 ] || fail "$card is write-protected"
sectors=$(cat "$sysfs/size" 2>/dev/null) || fail "$card is gone"
[ "$sectors" -ge "$SMALLEST_SECTORS" ] || fail "$card is too small ($sectors sectors)"

# The table comes last. A card that is pulled before that is foreign and formatted again; with the table
# first, it would look like a good card with half a file system. mke2fs claims the whole disk and fails
# if any part of it is in use. A discard could take longer than the service waits.
start=$FIRST_SECTOR
size=$((sectors - FIRST_SECTOR))
echo "Making an ext4 file system on $card ($((sectors / 2048)) MiB)"
message=$(mke2fs -q -F -t ext4 -E "offset=$((start * 512)),nodiscard" "$pinned" "$((size / 2))k" 2>&1 </dev/null) ||
    fail "no file system could be made on $card: $message"
message=$(printf 'label: dos\nstart=%s, size=%s, type=83\n' "$start" "$size" |
    sfdisk --quiet --no-reread --no-tell-kernel --wipe always --wipe-partitions never "$pinned" 2>&1) ||
    fail "no partition table could be written to $card: $message"
announce_partition || fail "the partition of $card does not appear"
has_ext4 || fail "$card does not hold what was written to it"
exit 99
