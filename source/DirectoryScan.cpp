#include "DirectoryScan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "DirectoryHandle.h"
#include "SDCardFileInfo.h"

namespace {

constexpr std::size_t kNameBlockSize = 65536;

// Large directories list their entries in the order of hashes. In the order of inodes the status
// records are read from the card one after the other.
constexpr std::size_t kSortThreshold = 1024;

constexpr int kStatusFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

bool isDotOrDotDot(const char* name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

} // namespace

const char* DirectoryScan::NameArena::store(std::string_view name)
{
    const std::size_t needed = name.size() + 1;
    if (mCapacity - mUsed < needed) {
        mBlocks.emplace_back(kNameBlockSize);
        mCapacity = kNameBlockSize;
        mUsed = 0;
    }
    char* const stored = mBlocks.back().data() + mUsed;
    name.copy(stored, name.size());
    stored[name.size()] = '\0';
    mUsed += needed;
    return stored;
}

void DirectoryScan::NameArena::clear()
{
    if (mBlocks.size() > 1) {
        mBlocks.resize(1);
    }
    mUsed = 0;
}

DirectoryScan::DirectoryScan(log4cxx::LoggerPtr logger, const std::atomic<bool>& isAbandoned)
    : mLogger(std::move(logger)), mIsAbandoned(isAbandoned)
{}

void DirectoryScan::run(const QByteArray& path, Extent extent, Keep keep)
{
    mExtent = extent;
    mKeep = keep;
    mPending.push_back({path, 0});
    while (!mPending.empty() && !mIsAbandoned) {
        const Pending next = std::move(mPending.back());
        mPending.pop_back();
        scanDirectory(next);
    }
}

void DirectoryScan::scanDirectory(const Pending& pending)
{
    DirectoryHandle handle(pending.path);
    struct stat status = {};
    if (!handle.isOpen() || ::fstat(handle.fd(), &status) != 0) {
        reportUnreadable(pending.path);
        return;
    }
    if (!mDevice) {
        mDevice = status.st_dev;
    } else if (status.st_dev != *mDevice || status.st_ino != pending.inode) {
        // Another one has taken its place since it was seen.
        TRACK_ERROR(mLogger, "fstatat() failed for " + pending.path + ": " +
                                 tavoutil::systemErrorText(ESTALE));
        return;
    }
    mTotalSize += status.st_size;

    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(handle.fd()), ::closedir);
    if (!stream) {
        return;
    }
    const int fd = handle.release();
    if (mKeep == Keep::Files) {
        mDirectories.push_back({pending.path, status.st_dev, status.st_ino});
    } else {
        mNames.clear();
    }
    readEntries(stream.get());
    measureEntries(fd, pending.path);
}

void DirectoryScan::reportUnreadable(const QByteArray& path)
{
    struct stat status = {};
    if (::fstatat(AT_FDCWD, path.constData(), &status, kStatusFlags) != 0) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR(mLogger, "fstatat() failed for " + path + ": " + why);
    } else if (!S_ISDIR(status.st_mode)) {
        TRACK_ERROR(mLogger, "It is not a directory: " + path);
    } else {
        mTotalSize += status.st_size;
    }
}

void DirectoryScan::readEntries(DIR* stream)
{
    mEntries.clear();
    while (const dirent* const entry = ::readdir(stream)) {
        const char* const name = static_cast<const char*>(entry->d_name);
        const bool isDirectory = entry->d_type == DT_DIR;
        if (isDirectory && (mExtent == Extent::OneLevel || isDotOrDotDot(name))) {
            continue;
        }
        mEntries.push_back({entry->d_ino, mNames.store(name)});
    }
    if (mEntries.size() > kSortThreshold) {
        std::sort(mEntries.begin(), mEntries.end(),
                  [](const Entry& a, const Entry& b) { return a.inode < b.inode; });
    }
}

void DirectoryScan::measureEntries(int fd, const QByteArray& path)
{
    const auto directory = static_cast<quint32>(mDirectories.size() - 1);
    for (const Entry& entry : mEntries) {
        struct stat status = {};
        if (::fstatat(fd, entry.name, &status, kStatusFlags) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR(mLogger, "fstatat() failed for " + path + "/" + entry.name + ": " + why);
            continue;
        }
        if (S_ISDIR(status.st_mode)) {
            if (mExtent == Extent::WholeTree && status.st_dev == *mDevice &&
                !isDotOrDotDot(entry.name)) {
                mPending.push_back({path + '/' + entry.name, status.st_ino});
            }
            continue;
        }
        mTotalSize += status.st_size;
        if (mKeep == Keep::Files) {
            mFiles.push_back({changeTimeOf(status), status.st_size, entry.name, directory});
        }
    }
}
