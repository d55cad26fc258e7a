#!/bin/sh
# Finishes the sysroot: Qt's generators are programs of the machine that builds, and a package that is
# built against the sysroot finds there what to depend on.
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

# Where dpkg-shlibdeps looks for a library that is not installed: beside the library's own tree.
mkdir "$root/DEBIAN"
for package in "$root"/var/cache/apt/archives/*.deb; do
    for file in symbols shlibs; do
        dpkg-deb --info "$package" "$file" >>"$root/DEBIAN/$file" 2>/dev/null || true
    done
done
