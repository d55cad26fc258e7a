#pragma once

#include <string>

#include <QString>

#include <sys/types.h>

/// One configured directory of the card.
struct DirInfo
{
    struct Ids
    {
        uid_t user;
        gid_t group;
    };
    struct OwnerNames
    {
        std::string user;
        std::string group;
    };

    QString name;               ///< its identifier: the last component of its path
    QString path;               ///< relative to the mount point, beginning with "/"
    qreal size = 0;             ///< its share of the whole card; 1.0 is all of it
    bool capacitywatch = false; ///< whether its oldest files are deleted above its share
    std::string mode;           ///< permission bits in octal digits as configured; may be empty
    std::string owner;          ///< "user" or "user:group" as configured; may be empty

    /// The permission bits: 0755 if none are configured, 0 if the text does not begin with an octal
    /// digit.
    mode_t modeBits() const;
    /// The configured names of user and group; either may be empty.
    OwnerNames ownerNames() const;
    /// The owner's ids. A part that is missing or unknown on this machine is 0 (root).
    Ids ownerIds() const;
    /// The directory's share in bytes of a card of @p cardBytes, rounded towards zero.
    qint64 allottedBytes(quint64 cardBytes) const;
};

/// One configured symbolic link of the card.
struct SymlinkInfo
{
    QString name;   ///< its file name
    QString path;   ///< relative to the mount point, beginning with "/"
    QString target; ///< what the link contains, as configured
    /// The target seen from the link's directory, relative to the mount point. Only callers of
    /// ConfigHandler use it.
    QString absoluteTarget;
};
