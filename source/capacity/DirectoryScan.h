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
/// every entry that is not a directory. Links are counted as themselves and never followed, other
/// file systems are not entered, and names are bytes. Each entry is asked for its status once. The
/// scan needs one descriptor and no recursion, however deep the tree is, and its memory grows with
/// the number of entries alone.
class DirectoryScan
{
public:
    /// One entry that is not a directory. A card may hold a million of them, so they are kept
    /// small.
    struct File
    {
        qint64 changeTime; ///< nanoseconds since the epoch
        qint64 size;       ///< bytes
        const char* name;  ///< within its directory; lives as long as the scan
        quint32 directory; ///< index of the directory that holds it
        quint32 inode;     ///< ext4 has no larger ones; of other file systems the low part
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

    /// @param logger receives an error for each entry that cannot be measured, which then counts
    /// nothing, on behalf of StorageCapacityWatcher::dirSizeFlat()
    /// @param token ends the scan early when it is cancelled
    DirectoryScan(log4cxx::LoggerPtr logger, CancellationToken token);

    /// Scans @p path; to be called once.
    /// @param device the file system that it must lie on, or it is not scanned; any without it
    void run(const QByteArray& path, Extent extent, Keep keep, std::optional<dev_t> device = {});
    /// Whether @p path was found on another file system than the given one.
    bool isElsewhere() const { return mIsElsewhere; }

    /// Bytes in all.
    qint64 totalSize() const { return mTotalSize; }
    /// The files, in no particular order; empty unless they were to be kept.
    std::vector<File>& files() { return mFiles; }
    /// What would be among the files, but could not be asked for its status; with neither size nor
    /// time.
    const std::vector<File>& unmeasured() const { return mUnmeasured; }
    /// How many directories were found, the scanned one among them.
    std::size_t directoryCount() const { return mDirectories.size(); }
    /// The directory that holds the directory @p index; the scanned one for itself.
    quint32 parent(quint32 index) const { return mDirectories[index].parent; }
    /// The path of the directory @p index.
    QByteArray path(quint32 index) const;
    QByteArray path(const File& file) const { return path(file.directory) + "/" + file.name; }
    /// Whether @p status is that of the directory @p index, and not of another that has taken its
    /// place.
    bool isDirectory(quint32 index, const struct stat& status) const;

private:
    struct Entry
    {
        ino_t inode;
        const char* name;
        bool isDirectory; ///< as far as the directory says
    };

    /// Keeps names in large blocks, since one allocation each would cost more than the names.
    class NameArena
    {
    public:
        const char* store(std::string_view name);
        /// Forgets all names and keeps one block.
        void clear();

    private:
        std::vector<std::vector<char>> mBlocks;
        std::size_t mUsed = 0;
        std::size_t mCapacity = 0;
    };

    /// Paths are put together when they are needed: in a deep tree they would take more memory
    /// than everything else.
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
