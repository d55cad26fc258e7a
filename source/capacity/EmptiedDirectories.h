#pragma once

#include <vector>

#include <QtGlobal>

#include <log4cxx/logger.h>

#include "CancellationToken.h"
#include "DirectoryScan.h"
#include "EmptyDirectoryRemover.h"

/// The directories that one enforcement empties.
///
/// Each is removed together with its emptied parents as soon as its last file has gone. A run that
/// is cut short, even by SIGKILL or a pulled card, so leaves at most one of them behind. A later
/// run would not remove more: it cannot tell them from empty directories that the user has made.
///
/// Records come at the end, in the order in which the directories were touched, as if they were
/// removed then.
class EmptiedDirectories
{
public:
    /// @param scan with its files; must outlive this object
    EmptiedDirectories(DirectoryScan& scan, log4cxx::LoggerPtr logger);

    /// To be called for each file that the enforcement has removed.
    void fileWasRemoved(quint32 directory);
    /// To be called for each file that somebody else has removed.
    void fileHasVanished(quint32 directory);
    /// Removes what could not be removed at once and logs what cannot be removed at all, unless
    /// the run is cut short.
    void finish(CancellationToken token);

private:
    struct State
    {
        quint32 entriesLeft = 0;    ///< scanned files and directories in it that are still there
        quint32 goneUnfinished = 0; ///< directories in it that are gone, but not yet finished
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
