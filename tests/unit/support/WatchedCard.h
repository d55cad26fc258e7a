#pragma once

#include <QByteArray>
#include <QList>

/// A card with one directory that is kept within a limit.
namespace WatchedCard {

inline const QByteArray kMountPoint = "/media/sdcard";
inline const QByteArray kDirectory = "/media/sdcard/w";

/// Mounts an empty card of @p bytes and creates the directory on it.
bool insert(qint64 bytes = 64 * 1048576LL);
void remove();

/// Brings the directory within @p limit bytes.
void enforce(qint64 limit);
/// Bytes of the directory with its content, as find(1) reports them.
qint64 used();
/// Sorted paths of everything below the directory, or only of entries that are not directories.
QList<QByteArray> entries();
QList<QByteArray> files();

/// Prevents the removal of a file or directory until the card is removed.
void makeBusy(const QByteArray& path);

} // namespace WatchedCard
