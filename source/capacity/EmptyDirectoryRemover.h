#pragma once

#include <functional>

#include <QByteArray>

#include <sys/stat.h>

#include <log4cxx/logger.h>

/// Removes empty directories and logs on behalf of StorageCapacityWatcher::removeEmptyDirs(). Paths
/// may be longer than PATH_MAX.
class EmptyDirectoryRemover
{
public:
    /// Whether a directory is the one out of which an empty one may be removed. The path may lead
    /// to another by now.
    using ParentCheck = std::function<bool(const struct stat&)>;

    explicit EmptyDirectoryRemover(log4cxx::LoggerPtr logger);

    /// Removes @p dir and its parents up to, not including, @p watchPath as far as they are empty
    /// and on the file system of @p watchPath.
    /// @return how many directories were removed
    int removeUpwards(const QByteArray& watchPath, const QByteArray& dir) const;
    /// Removes @p path unless it holds entries; logs a failure.
    /// @return whether it was removed
    bool removeIfEmpty(const QByteArray& path, const ParentCheck& isExpectedParent) const;
    /// Removes @p path, which must have a parent, without a record.
    /// @return 0 or the error number; ESTALE for another parent than the expected one
    static int remove(const QByteArray& path, const ParentCheck& isExpectedParent);

    /// Logs that the empty directory @p path could not be removed.
    void logNotRemoved(const QByteArray& path, int error) const;
    /// Whether @p parent, out of which @p path was removed, is still there; logs where it is not.
    bool hasParent(const QByteArray& path, const QByteArray& parent) const;

private:
    log4cxx::LoggerPtr mLogger;
};
