#!/bin/sh
# Makes the tree of headers and libraries that the service is built against for 32-bit ARM, if it is
# not there yet, and prints its path. SDCARDD_ARMHF_DIR overrides the place where it is kept.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
sysroot=${SDCARDD_ARMHF_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/sdcardd}/sysroot

"$here/armhf-root.sh" "$sysroot" --hook "$here/armhf-sysroot-hook.sh" \
    libc6-dev libstdc++-12-dev qtbase5-dev liblog4cxx-dev libfdisk-dev
echo "$sysroot"
