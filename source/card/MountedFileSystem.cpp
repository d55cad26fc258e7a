#include "MountedFileSystem.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <vector>

#include <QDir>

#include <mntent.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include "SdcardDefs.h"
#include "UnpreparedMark.h"

namespace {

/// Whether @p matches is true for the mount point of any entry of the mount table; empty if the
/// table cannot be read.
template <typename Predicate>
std::optional<bool> isAnyMountPoint(Predicate matches)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> table(
        ::setmntent(SdcardDefs::kMmcMountTable.toUtf8().constData(), "re"), ::endmntent);
    if (!table) {
        return std::nullopt;
    }
    // Device and mount point may be PATH_MAX bytes each, and every byte may be an octal escape.
    static constexpr std::size_t kLineSize = 2 * 4 * 4096 + 1024;
    std::vector<char> line(kLineSize);
    mntent entry{};
    while (::getmntent_r(table.get(), &entry, line.data(), static_cast<int>(line.size())) !=
           nullptr) {
        if (matches(
                QByteArray::fromRawData(entry.mnt_dir, static_cast<int>(qstrlen(entry.mnt_dir))))) {
            return true;
        }
    }
    return false;
}

} // namespace

MountedFileSystem::MountedFileSystem(const QString& mountPoint) : mMountPoint(mountPoint.toUtf8())
{}

bool MountedFileSystem::isMounted() const
{
    return isAnyMountPoint([this](const QByteArray& point) { return point == mMountPoint; })
        .value_or(false);
}

std::optional<FileSystemSize> MountedFileSystem::size() const
{
    struct statvfs status = {};
    if (!isMounted() || ::statvfs(mMountPoint.constData(), &status) != 0) {
        return std::nullopt;
    }
    const quint64 fragment = status.f_frsize;
    return FileSystemSize{status.f_blocks * fragment, status.f_bfree * fragment};
}

dev_t MountedFileSystem::device() const
{
    struct stat root = {};
    return isMounted() && ::stat(mMountPoint.constData(), &root) == 0 ? root.st_dev : 0;
}

bool MountedFileSystem::isDeviceGone() const
{
    struct stat root = {};
    if (::stat(mMountPoint.constData(), &root) != 0 || major(root.st_dev) == 0) {
        return false;
    }
    const QDir devices(QStringLiteral("/sys/dev/block"));
    return devices.exists() &&
           !devices.exists(QStringLiteral("%1:%2").arg(major(root.st_dev)).arg(minor(root.st_dev)));
}

int unmount(const QString& path)
{
    const QByteArray target = path.toUtf8();
    int result = 0;
    do {
        result = ::umount2(target.constData(), 0);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        return errno;
    }
    UnpreparedMark::clear();
    return 0;
}

bool removeMountPoint(const QString& path)
{
    QDir directory(path);
    if (!directory.exists()) {
        return true;
    }
    const QByteArray real = directory.canonicalPath().toUtf8();
    const std::optional<bool> isInUse = isAnyMountPoint(
        [&real](const QByteArray& point) { return point == real || point.startsWith(real + '/'); });
    return !isInUse.value_or(true) && directory.removeRecursively();
}
