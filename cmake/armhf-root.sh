#!/bin/sh
# Makes a directory tree out of Debian packages for 32-bit ARM, unpacked and not configured.
#
# Usage: armhf-root.sh DIRECTORY [--hook SCRIPT] PACKAGE...
#
# Nothing is done when DIRECTORY was made from the same list, by the same scripts, on the same Debian
# release with the same Qt before; its file "made-from" tells. SCRIPT gets the new tree as its argument
# before it takes DIRECTORY's place; the packages themselves are still in it then, in
# var/cache/apt/archives.
set -eu

directory=$1
shift
hook=
if [ "$1" = --hook ]; then
    hook=$2
    shift 2
fi

# Libraries of another point release than the machine's tools would not fit them.
made_from=$(
    echo "debian $(cat /etc/debian_version)"
    dpkg-query --show --showformat='qt ${Version}\n' qtbase5-dev
    printf '%s\n' "$@" | sort
    cat -- "$0" ${hook:+"$hook"} | sha256sum
)
if [ "$(cat "$directory/made-from" 2>/dev/null)" = "$made_from" ]; then
    exit 0
fi

echo "Making $directory (once; takes a minute)" >&2
mkdir -p "$(dirname "$directory")"
new=$(mktemp -d "$directory.XXXXXX")
sources=$(mktemp)
trap 'rm -rf "$new" "$sources"' EXIT
trap 'exit 1' HUP INT TERM
chmod 0755 "$new"

packages=$(printf '%s,' "$@")
unpack() {
    mmdebstrap --quiet --variant=extract --architectures=armhf --skip=cleanup/apt/cache \
        --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr \
        --include="${packages%,}" bookworm "$new/root" - <"$sources"
}
cat /etc/apt/sources.list.d/debian.sources >"$sources"
if ! unpack; then
    # The two archives of a mirror are not always in step; the releases are complete without this one.
    echo "Once more, without the security archive" >&2
    rm -rf "$new/root"
    awk 'BEGIN { RS = ""; ORS = "\n\n" } !/-security/' /etc/apt/sources.list.d/debian.sources >"$sources"
    unpack
fi

# An absolute link would lead to this machine's own files.
find "$new/root" -type l -lname '/*' | while IFS= read -r link; do
    ln -sfn --relative "$new/root$(readlink "$link")" "$link"
done
if [ -n "$hook" ]; then
    "$hook" "$new/root"
fi
rm -rf "$new/root/var/cache/apt"
printf '%s\n' "$made_from" >"$new/root/made-from"
rm -rf "$directory"
mv "$new/root" "$directory"
