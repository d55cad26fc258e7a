#pragma once

#include <QString>

/// The part of the controller that the bus object uses.
class SdcardInterface
{
public:
    virtual ~SdcardInterface() = default;

    /// Bytes that the media configuration allots to the directory @p id; 0 when there is no such
    /// directory or no mounted card.
    virtual qint64 getDirSize(const QString& id) = 0;
    /// Bytes that the directory @p id occupies now, or the whole card for an empty @p id; 0 as
    /// above.
    virtual qint64 getDirUsed(const QString& id) = 0;
    /// Path of the directory or link @p id relative to the mount point, beginning with "/"; empty
    /// when there is none.
    virtual QString getDirPath(const QString& id) = 0;
    /// Brings the watched directory @p id, or all of them if it is empty, back within its share.
    /// @return false when no watched directory has that identifier
    virtual bool ensureDirSize(const QString& id) = 0;
    /// Recomputes memory state and level.
    virtual void checkMemState() = 0;
};
