#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <log4cxx/logger.h>

#include "CardRoot.h"
#include "DirInfo.h"

/// Creates and corrects the configured directories and links on a mounted card. Removes nothing
/// except a link with another target. Does not touch other file systems, even if a link on the card
/// or a configured name leads there.
class LayoutApplication
{
public:
    /// @param logger receives a record for each correction and for each step that fails
    LayoutApplication(const QString& mountPoint, log4cxx::LoggerPtr logger);

    /// Continues after a failed step.
    /// @return false if at least one step failed
    bool apply(const QVector<DirInfo>& dirs, const QVector<SymlinkInfo>& symlinks) const;

private:
    bool applyDir(const DirInfo& dir) const;
    bool createDir(const DirInfo& dir) const;
    bool correctDir(const DirInfo& dir, const OpenedPlace& place) const;
    bool applySymlink(const SymlinkInfo& symlink) const;

    QByteArray fullPath(const QString& path) const { return (mMountPoint + path).toUtf8(); }
    bool fail(const QByteArray& what, int error) const;
    bool leaveAlone(const QString& path) const;

    QString mMountPoint;
    CardRoot mCard;
    log4cxx::LoggerPtr mLogger;
};
