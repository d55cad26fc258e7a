#pragma once

#include <QByteArray>
#include <QString>

#include <sys/mount.h>

#include "TestDevice.h"

/// Stands in for the system's mount table. While it exists, the rest of /proc is missing.
class MountTable
{
public:
    /// @param content null for no table
    explicit MountTable(const QByteArray& content)
    {
        constexpr qint64 kSize = 1 << 16;
        TestDevice::mountTmpfs(QStringLiteral("/proc"), kSize);
        if (!content.isNull()) {
            TestDevice::writeFile(QStringLiteral("/proc/mounts"), content);
        }
    }
    ~MountTable() { ::umount2("/proc", 0); }
    MountTable(const MountTable&) = delete;
    MountTable(MountTable&&) = delete;
    MountTable& operator=(const MountTable&) = delete;
    MountTable& operator=(MountTable&&) = delete;
};
