#include "DirectoryScan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "DirectoryHandle.h"
#include "SDCardFileInfo.h"

namespace {

constexpr tavoutil::RecordOrigin kOrigin{
    "StorageCapacityWatcher",
    "qint64 StorageCapacityWatcher::dirSizeFlat(const QByteArray&) const"};

constexpr std::size_t kNameBlockSize = 65536;

// Large directories list their entries in hash order. In inode order the status records are read
// from the card sequentially.
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

DirectoryScan::DirectoryScan(log4cxx::LoggerPtr logger, CancellationToken token)
    : mLogger(std::move(logger)), mToken(token)
{}

void DirectoryScan::run(const QByteArray& path, Extent extent, Keep keep,
                        std::optional<dev_t> device)
{
    mExpectedDevice = device;
    mExtent = extent;
    mKeep = keep;
    mRoot = path;
    mDirectories.push_back({"", 0, kRoot});
    mPending.push_back(kRoot);
    while (!mPending.empty() && !mToken.isCancelled()) {
        const quint32 next = mPending.back();
        mPending.pop_back();
        scanDirectory(next);
    }
}

QByteArray DirectoryScan::path(quint32 index) const
{
    std::vector<const char*> names;
    for (quint32 directory = index; directory != kRoot;) {
        names.push_back(mDirectories[directory].name);
        directory = mDirectories[directory].parent;
    }
    QByteArray path = mRoot;
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        path.append('/').append(*name);
    }
    return path;
}

bool DirectoryScan::isDirectory(quint32 index, const struct stat& status) const
{
    return status.st_dev == mDevice && status.st_ino == mDirectories[index].inode;
}

void DirectoryScan::scanDirectory(quint32 index)
{
    const QByteArray path = this->path(index);
    DirectoryHandle handle(path);
    struct stat status = {};
    if (!handle.isOpen() || ::fstat(handle.fd(), &status) != 0) {
        reportUnreadable(path);
        return;
    }
    if (index == kRoot) {
        mIsElsewhere = mExpectedDevice && *mExpectedDevice != status.st_dev;
        if (mIsElsewhere) {
            return;
        }
        mDevice = status.st_dev;
        mDirectories[kRoot].inode = status.st_ino;
    } else if (!isDirectory(index, status)) {
        // Another directory has replaced it since it was listed.
        TRACK_ERROR_FROM(kOrigin, mLogger,
                         "fstatat() failed for " + path + ": " + tavoutil::systemErrorText(ESTALE));
        return;
    }
    addSize(status.st_size);

    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(handle.fd()), ::closedir);
    if (!stream) {
        return;
    }
    const int fd = handle.release();
    if (mKeep == Keep::SizesOnly) {
        mNames.clear();
    }
    readEntries(stream.get());
    measureEntries(fd, index, path);
}

void DirectoryScan::reportUnreadable(const QByteArray& path)
{
    struct stat status = {};
    if (::fstatat(AT_FDCWD, path.constData(), &status, kStatusFlags) != 0) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR_FROM(kOrigin, mLogger, "fstatat() failed for " + path + ": " + why);
    } else if (!S_ISDIR(status.st_mode)) {
        TRACK_ERROR_FROM(kOrigin, mLogger, "It is not a directory: " + path);
    } else {
        addSize(status.st_size);
    }
}

void DirectoryScan::readEntries(DIR* stream)
{
    mEntries.clear();
    while (const dirent* const entry = ::readdir(stream)) {
        if (mToken.isCancelled()) {
            break;
        }
        const char* const name = static_cast<const char*>(entry->d_name);
        const bool isDirectory = entry->d_type == DT_DIR;
        if (isDirectory && (mExtent == Extent::OneLevel || isDotOrDotDot(name))) {
            continue;
        }
        mEntries.push_back({entry->d_ino, mNames.store(name), isDirectory});
    }
    if (mEntries.size() > kSortThreshold) {
        std::sort(mEntries.begin(), mEntries.end(),
                  [](const Entry& a, const Entry& b) { return a.inode < b.inode; });
    }
}

void DirectoryScan::measureEntries(int fd, quint32 directory, const QByteArray& path)
{
    for (const Entry& entry : mEntries) {
        if (mToken.isCancelled()) {
            return;
        }
        struct stat status = {};
        if (::fstatat(fd, entry.name, &status, kStatusFlags) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR_FROM(kOrigin, mLogger,
                             "fstatat() failed for " + path + "/" + entry.name + ": " + why);
            if (mKeep == Keep::Files && !entry.isDirectory) {
                mUnmeasured.push_back(
                    {0, 0, entry.name, directory, static_cast<quint32>(entry.inode)});
            }
            continue;
        }
        if (S_ISDIR(status.st_mode)) {
            if (mExtent == Extent::WholeTree && status.st_dev == mDevice &&
                !isDotOrDotDot(entry.name)) {
                mPending.push_back(static_cast<quint32>(mDirectories.size()));
                mDirectories.push_back(
                    {mDirectoryNames.store(entry.name), status.st_ino, directory});
            }
            continue;
        }
        addSize(status.st_size);
        if (mKeep == Keep::Files) {
            mFiles.push_back({changeTimeOf(status), status.st_size, entry.name, directory,
                              static_cast<quint32>(status.st_ino)});
        }
    }
}

void DirectoryScan::addSize(qint64 size)
{
    // The sizes of sparse files may overflow the sum.
    if (__builtin_add_overflow(mTotalSize, size, &mTotalSize)) {
        mTotalSize = std::numeric_limits<qint64>::max();
    }
}
