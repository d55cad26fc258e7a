#pragma once

#include <vector>

#include <QtGlobal>

#include <log4cxx/logger.h>

#include "CancellationToken.h"
#include "DirectoryScan.h"
#include "EmptyDirectoryRemover.h"

/// The directories that one enforcement empties.
///
/// Each directory is removed, together with its emptied parents, as soon as its last file is
/// deleted. So even a run that is cut short by SIGKILL or a pulled card leaves at most one behind.
/// A later run could not remove it: it cannot distinguish it from an empty directory of the user.
///
/// The records follow at the end, in the order in which the directories were touched, as if they
/// were removed then.
class EmptiedDirectories
{
public:
    /// @param scan with its files; must outlive this object
    EmptiedDirectories(DirectoryScan& scan, log4cxx::LoggerPtr logger);

    /// Call it for each file that the enforcement has removed.
    void fileWasRemoved(quint32 directory);
    /// Call it for each file that another process has removed.
    void fileHasVanished(quint32 directory);
    /// Removes the directories that could not be removed at once and logs failures, unless the run
    /// is cut short.
    void finish(CancellationToken token);

private:
    struct State
    {
        quint32 entriesLeft = 0;    ///< remaining scanned files and directories
        quint32 goneUnfinished = 0; ///< removed, but unfinished directories in it
        bool isTouched = false;
        bool isGone = false;
        bool isFinished = false;
    };

    void removeUpwards(quint32 directory);
    void finishUpwards(quint32 directory);
    EmptyDirectoryRemover::ParentCheck isParentOf(quint32 directory) const;

    const DirectoryScan& mScan;
    EmptyDirectoryRemover mRemover;
    std::vector<State> mStates;
    std::vector<quint32> mTouched;
};
