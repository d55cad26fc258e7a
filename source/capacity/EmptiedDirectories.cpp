#include "EmptiedDirectories.h"

#include <cerrno>
#include <utility>

EmptiedDirectories::EmptiedDirectories(DirectoryScan& scan, log4cxx::LoggerPtr logger)
    : mScan(scan), mRemover(std::move(logger)), mStates(scan.directoryCount())
{
    for (const DirectoryScan::File& file : scan.files()) {
        ++mStates[file.directory].entriesLeft;
    }
    for (quint32 directory = DirectoryScan::kRoot + 1; directory < mStates.size(); ++directory) {
        ++mStates[scan.parent(directory)].entriesLeft;
    }
}

void EmptiedDirectories::fileWasRemoved(quint32 directory)
{
    if (!mStates[directory].isTouched) {
        mStates[directory].isTouched = true;
        mTouched.push_back(directory);
    }
    fileHasVanished(directory);
}

void EmptiedDirectories::fileHasVanished(quint32 directory)
{
    --mStates[directory].entriesLeft;
    if (mStates[directory].isTouched) {
        removeUpwards(directory);
    }
}

void EmptiedDirectories::removeUpwards(quint32 directory)
{
    quint32 level = directory;
    while (level != DirectoryScan::kRoot && mStates[level].entriesLeft == 0 &&
           EmptyDirectoryRemover::remove(mScan.path(level), isParentOf(level)) == 0) {
        mStates[level].isGone = true;
        level = mScan.parent(level);
        --mStates[level].entriesLeft;
        ++mStates[level].goneUnfinished;
    }
}

void EmptiedDirectories::finish(CancellationToken token)
{
    for (const quint32 directory : mTouched) {
        if (token.isCancelled()) {
            return;
        }
        finishUpwards(directory);
    }
}

void EmptiedDirectories::finishUpwards(quint32 directory)
{
    quint32 below = directory;
    for (quint32 level = directory; level != DirectoryScan::kRoot; level = mScan.parent(level)) {
        State& state = mStates[level];
        if (state.goneUnfinished > 0) {
            return; // The last of them removes it.
        }
        if (state.isFinished) {
            mRemover.logNotRemoved(mScan.path(level), ENOENT);
            return;
        }
        if (state.isGone) {
            --mStates[mScan.parent(level)].goneUnfinished;
        } else if ((level != below && !mRemover.hasParent(mScan.path(below), mScan.path(level))) ||
                   !mRemover.removeIfEmpty(mScan.path(level), isParentOf(level))) {
            return;
        }
        state.isFinished = true;
        below = level;
    }
}

EmptyDirectoryRemover::ParentCheck EmptiedDirectories::isParentOf(quint32 directory) const
{
    return [this, parent = mScan.parent(directory)](const struct stat& status) {
        return mScan.isDirectory(parent, status);
    };
}
