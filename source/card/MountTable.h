#pragma once

#include <QString>

/// The state of a mount point in the mount table.
enum class MountState : int
{
    Unclear = 0,    ///< listed, but neither as "rw" nor as "ro"
    NotMounted = 1, ///< not listed, or the table cannot be read
    ReadOnly = 2,
    ReadWrite = 3
};

/// Looks the mount point up in the mount table as plain text. The first line that contains it
/// decides, by "rw" or "ro" anywhere in that line.
MountState mountStateOf(const QString& mountPoint);
