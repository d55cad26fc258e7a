#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <QByteArray>

#include <dirent.h>
#include <sys/stat.h>

#include <log4cxx/logger.h>

#include "CancellationToken.h"

/// Measures a directory or a whole tree: the apparent sizes of the directories themselves and of
/// all other entries. Links count as themselves and are never followed. Other file systems are not
/// entered. Names are bytes. Each entry's status is read once. The scan needs one descriptor and no
/// recursion at any depth, and its memory grows only with the number of entries.
class DirectoryScan
{
public:
    /// One entry that is not a directory. Kept small, because a card may contain a million of them.
    struct File
    {
        qint64 changeTime; ///< nanoseconds since the epoch
        qint64 size;       ///< bytes
        const char* name;  ///< within its directory; lives as long as the scan
        quint32 directory; ///< index of its directory
        quint32 inode;     ///< enough for ext4; the low part on other file systems
    };

    /// The index of the scanned directory.
    static constexpr quint32 kRoot = 0;

    enum class Extent
    {
        OneLevel, ///< for StorageCapacityWatcher::dirSizeFlat()
        WholeTree
    };
    enum class Keep
    {
        SizesOnly,
        Files
    };

    /// @param logger receives an error for each entry that cannot be measured and counts as 0, on
    /// behalf of StorageCapacityWatcher::dirSizeFlat()
    /// @param token ends the scan early when it is cancelled
    DirectoryScan(log4cxx::LoggerPtr logger, CancellationToken token);

    /// Scans @p path; call it once.
    /// @param device the file system that must contain it; if empty, any
    void run(const QByteArray& path, Extent extent, Keep keep, std::optional<dev_t> device = {});
    /// Whether @p path is on another file system than the given one.
    bool isElsewhere() const { return mIsElsewhere; }

    /// Bytes in total.
    qint64 totalSize() const { return mTotalSize; }
    /// The files, in no particular order; empty unless they are kept.
    std::vector<File>& files() { return mFiles; }
    /// Entries whose status could not be read; without size and time.
    const std::vector<File>& unmeasured() const { return mUnmeasured; }
    /// The number of directories, including the scanned one.
    std::size_t directoryCount() const { return mDirectories.size(); }
    /// The parent of the directory @p index; for the scanned directory, itself.
    quint32 parent(quint32 index) const { return mDirectories[index].parent; }
    /// The path of the directory @p index.
    QByteArray path(quint32 index) const;
    QByteArray path(const File& file) const { return path(file.directory) + "/" + file.name; }
    /// Whether @p status is still that of the directory @p index, so that no other directory has
    /// replaced it.
    bool isDirectory(quint32 index, const struct stat& status) const;

private:
    struct Entry
    {
        ino_t inode;
        const char* name;
        bool isDirectory; ///< according to the directory entry
    };

    /// Keeps names in large blocks, because separate allocations would cost more than the names.
    class NameArena
    {
    public:
        const char* store(std::string_view name);
        /// Drops all names and keeps one block.
        void clear();

    private:
        std::vector<std::vector<char>> mBlocks;
        std::size_t mUsed = 0;
        std::size_t mCapacity = 0;
    };

    /// Paths are built on demand: in a deep tree stored paths would need more memory than
    /// everything else.
    struct Directory
    {
        const char* name; ///< within its parent
        ino_t inode;
        quint32 parent;
    };

    void scanDirectory(quint32 index);
    void reportUnreadable(const QByteArray& path);
    void readEntries(DIR* stream);
    void measureEntries(int fd, quint32 directory, const QByteArray& path);
    void addSize(qint64 size);

    log4cxx::LoggerPtr mLogger;
    CancellationToken mToken;
    Extent mExtent = Extent::WholeTree;
    Keep mKeep = Keep::SizesOnly;
    QByteArray mRoot;
    std::optional<dev_t> mExpectedDevice;
    bool mIsElsewhere = false;
    dev_t mDevice = 0;
    qint64 mTotalSize = 0;
    std::vector<File> mFiles;
    std::vector<File> mUnmeasured;
    std::vector<Directory> mDirectories;
    std::vector<quint32> mPending;
    std::vector<Entry> mEntries;
    NameArena mNames;
    NameArena mDirectoryNames;
};
