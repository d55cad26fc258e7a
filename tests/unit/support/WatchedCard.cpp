#include "WatchedCard.h"

#include <algorithm>

#include <sys/mount.h>

#include "ScannedTree.h"
#include "StorageCapacityWatcher.h"
#include "TestDevice.h"
#include "config.h"

namespace {

QList<QByteArray> paths(bool withDirectories)
{
    QList<QByteArray> found;
    for (const ScannedTree::Entry& entry : ScannedTree::list(WatchedCard::kDirectory)) {
        if (entry.path != WatchedCard::kDirectory && (withDirectories || !entry.isDirectory)) {
            found.append(entry.path);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

} // namespace

bool WatchedCard::insert(qint64 bytes)
{
    if (!TestDevice::mountTmpfs(kMountPoint, bytes)) {
        return false;
    }
    ScannedTree::createDirectory(kDirectory);
    return true;
}

void WatchedCard::remove()
{
    TestDevice::unmountAll(kMountPoint);
    TestDevice::remove(kMountPoint);
}

void WatchedCard::enforce(qint64 limit)
{
    const ConfigHandler config;
    StorageCapacityWatcher(config).ensureDirSizeSingle({kDirectory, limit});
}

qint64 WatchedCard::used()
{
    return ScannedTree::sizeOf(ScannedTree::list(kDirectory));
}

QList<QByteArray> WatchedCard::entries()
{
    return paths(true);
}

QList<QByteArray> WatchedCard::files()
{
    return paths(false);
}

void WatchedCard::makeBusy(const QByteArray& path)
{
    if (::mount(path.constData(), path.constData(), nullptr, MS_BIND, nullptr) != 0) {
        qFatal("cannot keep %s busy", path.constData());
    }
}
