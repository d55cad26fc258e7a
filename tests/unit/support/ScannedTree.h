#pragma once

#include <QByteArray>
#include <QList>

/// The content of a card for tests of scanning and deleting. Paths are bytes.
namespace ScannedTree {

/// An entry as find(1) reports it.
struct Entry
{
    QByteArray path;
    qint64 size;       ///< bytes
    qint64 changeTime; ///< nanoseconds since the epoch
    bool isDirectory;
};

/// Creates a directory in an existing one.
void createDirectory(const QByteArray& path);
/// Creates a file of @p size bytes, a hole, in an existing directory.
void createFile(const QByteArray& path, qint64 size = 0);
/// Creates files of @p size bytes, each with a later change time.
void createFilesInOrder(const QList<QByteArray>& paths, qint64 size);
/// Adds hard links to @p file in @p directory, with names of @p nameLength bytes: faster than as
/// many files.
void createNames(const QByteArray& file, const QByteArray& directory, int count, int nameLength);
/// Waits until new files get a later change time.
void awaitNextChangeTime();

/// @p path and everything below it, as find(1) lists it.
QList<Entry> list(const QByteArray& path);
/// The sum of all sizes.
qint64 sizeOf(const QList<Entry>& entries);
/// The size of one entry itself, not of its link target; -1 if it does not exist.
qint64 sizeOf(const QByteArray& path);
/// Whether @p path exists, even as a dangling link.
bool exists(const QByteArray& path);

} // namespace ScannedTree
