#include "LimitEnforcement.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "EmptiedDirectories.h"
#include "FileRemover.h"
#include "SDCardFileInfo.h"

namespace {

constexpr tavoutil::RecordOrigin kOrigin{
    "StorageCapacityWatcher",
    "void StorageCapacityWatcher::ensureDirSizeSingle(const StorageCapacityWatcher::WatchDir&) "
    "const"};

/// Reads the status again of entries that the scan could not read, and adds them to the files in
/// any case.
void addUnmeasured(DirectoryScan& scan)
{
    for (const DirectoryScan::File& file : scan.unmeasured()) {
        const SDCardFileInfo info(scan.path(file));
        if (!info.isDirectory()) {
            scan.files().push_back(
                {info.changeTime(), info.size(), file.name, file.directory, file.inode});
        }
    }
}

} // namespace

LimitEnforcement::LimitEnforcement(log4cxx::LoggerPtr logger, CancellationToken token)
    : mLogger(std::move(logger)), mToken(token)
{}

void LimitEnforcement::run(const QByteArray& path, qint64 limit, std::optional<dev_t> device) const
{
    DirectoryScan scan(mLogger, mToken);
    scan.run(path, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files, device);
    if (scan.isElsewhere()) {
        TRACK_ERROR_FROM(kOrigin, mLogger, path + " is not on the card");
        return;
    }
    if (limit >= scan.totalSize() || mToken.isCancelled()) {
        return;
    }
    addUnmeasured(scan);
    if (scan.files().empty()) {
        TRACK_WARN_FROM(kOrigin, mLogger, path + " exceed limit but there are no files to remove");
        return;
    }
    remove(scan, select(scan.files(), scan.totalSize(), limit));
}

/// Moves the files to delete to the end, the oldest last.
/// @return the first of them
LimitEnforcement::Files::const_iterator LimitEnforcement::select(Files& files, qint64 used,
                                                                 qint64 limit) const
{
    // A heap with the oldest on top: often few of many files are deleted, and a full sort would
    // order all of them.
    const auto isNewer = [](const DirectoryScan::File& a, const DirectoryScan::File& b) {
        return a.changeTime > b.changeTime;
    };
    std::make_heap(files.begin(), files.end(), isNewer);
    auto selected = files.end();
    while (selected != files.begin() && used >= limit && !mToken.isCancelled()) {
        std::pop_heap(files.begin(), selected, isNewer);
        --selected;
        used -= selected->size;
    }
    return selected;
}

void LimitEnforcement::remove(DirectoryScan& scan, Files::const_iterator selected) const
{
    EmptiedDirectories directories(scan, mLogger);
    {
        // The remover keeps a directory open.
        FileRemover remover(scan);
        for (auto file = scan.files().cend(); file != selected && !mToken.isCancelled();) {
            --file;
            const int error = remover.remove(*file);
            if (error == 0) {
                directories.fileWasRemoved(file->directory);
                continue;
            }
            TRACK_WARN_FROM(kOrigin, mLogger,
                            "Cannot remove file " + scan.path(*file) + ": " +
                                tavoutil::systemErrorText(error));
            if (error == ENOENT) {
                directories.fileHasVanished(file->directory);
            }
        }
    }
    directories.finish(mToken);
}
