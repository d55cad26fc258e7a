#pragma once

#include <optional>

#include "DirectoryHandle.h"
#include "DirectoryScan.h"

/// Removes files of a scan. Opens each directory once for consecutive files. A directory or file
/// that has been replaced since the scan, as its inode shows, stays: a link may lead anywhere, and
/// a new file of the same name is another file.
class FileRemover
{
public:
    /// @param scan must outlive the remover
    explicit FileRemover(const DirectoryScan& scan) : mScan(scan) {}

    /// @return 0 or the error number; ESTALE if the file or its directory has been replaced
    int remove(const DirectoryScan::File& file);

private:
    void open(quint32 directory);

    const DirectoryScan& mScan;
    std::optional<quint32> mOpened;
    std::optional<DirectoryHandle> mHandle;
    int mError = 0;
};
