#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <sys/types.h>

#include <log4cxx/logger.h>

#include "DirInfo.h"

/// Creates and corrects the configured directories and links on a mounted card. It never removes
/// anything but a link with another content.
class LayoutApplication
{
public:
    /// @param logger receives a record for each correction and for each step that fails
    LayoutApplication(QString mountPoint, log4cxx::LoggerPtr logger);

    /// Goes on after a step that fails.
    /// @return false when at least one step failed
    bool apply(const QVector<DirInfo>& dirs, const QVector<SymlinkInfo>& symlinks) const;

private:
    bool applyDir(const DirInfo& dir) const;
    bool createDir(const DirInfo& dir, const QByteArray& fullPath) const;
    bool correctDir(const DirInfo& dir, const QByteArray& fullPath, mode_t currentMode,
                    DirInfo::Ids currentOwner) const;
    bool applySymlink(const SymlinkInfo& symlink) const;

    QString mMountPoint;
    log4cxx::LoggerPtr mLogger;
};
