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
    /// Whether a directory is the expected parent. The path may lead to another one by now.
    using ParentCheck = std::function<bool(const struct stat&)>;

    explicit EmptyDirectoryRemover(log4cxx::LoggerPtr logger);

    /// Removes @p dir and its parents below @p watchPath while they are empty and on the file
    /// system of @p watchPath.
    /// @return how many directories were removed
    int removeUpwards(const QByteArray& watchPath, const QByteArray& dir) const;
    /// Removes @p path if it is empty; logs a failure.
    /// @return whether it was removed
    bool removeIfEmpty(const QByteArray& path, const ParentCheck& isExpectedParent) const;
    /// Removes @p path, which must have a parent, without logging.
    /// @return 0 or the error number; ESTALE if the parent is not the expected one
    static int remove(const QByteArray& path, const ParentCheck& isExpectedParent);

    /// Logs that the empty directory @p path could not be removed.
    void logNotRemoved(const QByteArray& path, int error) const;
    /// Whether @p parent still exists after the removal of @p path from it; logs if it does not.
    bool hasParent(const QByteArray& path, const QByteArray& parent) const;

private:
    log4cxx::LoggerPtr mLogger;
};
