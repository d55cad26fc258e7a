#pragma once

#include <QByteArray>
#include <QList>

/// A card with a directory that is kept within a limit.
namespace WatchedCard {

inline const QByteArray kMountPoint = "/media/sdcard";
inline const QByteArray kDirectory = "/media/sdcard/w";

/// Mounts an empty card of @p bytes and creates the directory on it.
bool insert(qint64 bytes = 64 * 1048576LL);
void remove();

/// Brings the directory within @p limit bytes.
void enforce(qint64 limit);
/// Bytes of the directory with everything below it, as find(1) sees it.
qint64 used();
/// Paths of all that is below the directory, or of what is no directory there, sorted.
QList<QByteArray> entries();
QList<QByteArray> files();

/// Lets neither a file nor a directory be removed, until the card is removed.
void makeBusy(const QByteArray& path);

} // namespace WatchedCard
