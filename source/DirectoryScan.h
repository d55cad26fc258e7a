#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <QByteArray>

#include <dirent.h>
#include <sys/types.h>

#include <log4cxx/logger.h>

/// Measures a directory or a whole tree: the apparent sizes of the directories themselves and of
/// every entry that is not a directory. Links are counted as themselves and never followed, other
/// file systems are not entered, and names are bytes. Each entry is asked for its status once. The
/// scan needs one descriptor and no recursion, however deep the tree is.
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
        quint32 directory; ///< index into directories()
    };

    struct Directory
    {
        QByteArray path;
        dev_t device;
        ino_t inode;
    };

    enum class Extent
    {
        OneLevel,
        WholeTree
    };
    enum class Keep
    {
        SizesOnly,
        Files
    };

    /// @param logger receives an error for each entry that cannot be measured, which then counts
    /// nothing
    /// @param isAbandoned ends the scan early when it becomes true
    DirectoryScan(log4cxx::LoggerPtr logger, const std::atomic<bool>& isAbandoned);

    /// Scans @p path; to be called once.
    void run(const QByteArray& path, Extent extent, Keep keep);

    /// Bytes in all.
    qint64 totalSize() const { return mTotalSize; }
    /// The files, in no particular order; empty unless they were to be kept.
    std::vector<File>& files() { return mFiles; }
    /// The directories that hold the files.
    const std::vector<Directory>& directories() const { return mDirectories; }

private:
    struct Entry
    {
        ino_t inode;
        const char* name;
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

    /// A directory that has been seen, but not been read yet.
    struct Pending
    {
        QByteArray path;
        ino_t inode;
    };

    void scanDirectory(const Pending& pending);
    void reportUnreadable(const QByteArray& path);
    void readEntries(DIR* stream);
    void measureEntries(int fd, const QByteArray& path);

    log4cxx::LoggerPtr mLogger;
    const std::atomic<bool>& mIsAbandoned;
    Extent mExtent = Extent::WholeTree;
    Keep mKeep = Keep::SizesOnly;
    std::optional<dev_t> mDevice;
    qint64 mTotalSize = 0;
    std::vector<File> mFiles;
    std::vector<Directory> mDirectories;
    std::vector<Pending> mPending;
    std::vector<Entry> mEntries;
    NameArena mNames;
};
