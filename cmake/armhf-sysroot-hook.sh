#!/bin/sh
# Finishes the sysroot: Qt's generators are programs of the machine that builds.
set -eu
root=$1

own=$(dpkg-query --show --showformat='${Version}' qtbase5-dev-tools)
for tool in moc rcc uic qmake qdbusxml2cpp qdbuscpp2xml qlalr; do
    link=$root/usr/lib/qt5/bin/$tool
    if [ -x "/usr/lib/qt5/bin/$tool" ]; then
        ln -sfn "/usr/lib/qt5/bin/$tool" "$link"
    fi
done

# The generators' output is only understood by the library of their own version.
there=$(sed -n 's/^set(PACKAGE_VERSION \([0-9.]*\))$/\1/p' \
    "$root/usr/lib/arm-linux-gnueabihf/cmake/Qt5Core/Qt5CoreConfigVersion.cmake")
case $own in
    "$there"+*) ;;
    *)
        echo "Qt $there for ARM does not go with this machine's generators ($own)" >&2
        exit 1
        ;;
esac
