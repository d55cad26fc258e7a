#pragma once

#include <optional>

#include "DirectoryHandle.h"
#include "DirectoryScan.h"

/// Removes files of a scan. Each directory is opened once for a run of its files. What has taken
/// the place of a scanned directory or file meanwhile stays, as far as its inode tells: a link may
/// lead anywhere, and a new file is not the old one of its name.
class FileRemover
{
public:
    /// @param scan must outlive the remover
    explicit FileRemover(const DirectoryScan& scan) : mScan(scan) {}

    /// @return 0 or the error number; ESTALE for what has been replaced
    int remove(const DirectoryScan::File& file);

private:
    void open(quint32 directory);

    const DirectoryScan& mScan;
    std::optional<quint32> mOpened;
    std::optional<DirectoryHandle> mHandle;
    int mError = 0;
};
