#pragma once

#include <optional>
#include <vector>

#include <QByteArray>

#include <sys/types.h>

#include <log4cxx/logger.h>

#include "CancellationToken.h"
#include "DirectoryScan.h"

/// Deletes the oldest files of a directory until it is below its limit, and the directories that
/// become empty. Logs on behalf of StorageCapacityWatcher::ensureDirSizeSingle().
class LimitEnforcement
{
public:
    /// @param token ends the enforcement early when it is cancelled
    LimitEnforcement(log4cxx::LoggerPtr logger, CancellationToken token);

    /// @param limit bytes
    /// @param device the file system that must contain the directory; otherwise nothing is deleted.
    /// If empty, any
    void run(const QByteArray& path, qint64 limit, std::optional<dev_t> device = {}) const;

private:
    using Files = std::vector<DirectoryScan::File>;

    Files::const_iterator select(Files& files, qint64 used, qint64 limit) const;
    void remove(DirectoryScan& scan, Files::const_iterator selected) const;

    log4cxx::LoggerPtr mLogger;
    CancellationToken mToken;
};
