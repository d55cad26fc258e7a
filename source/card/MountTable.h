#pragma once

#include <QString>

/// What the mount table says about a mount point.
enum class MountState : int
{
    Unclear = 0,    ///< listed, but neither as "rw" nor as "ro"
    NotMounted = 1, ///< not listed, or the table cannot be read
    ReadOnly = 2,
    ReadWrite = 3
};

/// Looks the mount point up in the mount table as plain text: the first line that contains it
/// decides, and "rw" or "ro" anywhere in that line.
MountState mountStateOf(const QString& mountPoint);
