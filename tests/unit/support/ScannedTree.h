#pragma once

#include <QByteArray>
#include <QList>

/// What stands on a card for a test of scanning and deleting. Paths are bytes.
namespace ScannedTree {

/// An entry as another program sees it.
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
/// Creates files of @p size bytes one after the other, each with a later change time.
void createFilesInOrder(const QList<QByteArray>& paths, qint64 size);
/// Gives @p file as many more names in @p directory, each of @p nameLength bytes: quicker than as
/// many files.
void createNames(const QByteArray& file, const QByteArray& directory, int count, int nameLength);
/// Returns when what is created from now on has a later change time.
void awaitNextChangeTime();

/// Everything below and including @p path, as find(1) lists it.
QList<Entry> list(const QByteArray& path);
/// The sum of all sizes.
qint64 sizeOf(const QList<Entry>& entries);
/// The size of one entry itself, not of what it links to; -1 where there is none.
qint64 sizeOf(const QByteArray& path);
/// Whether there is something at @p path, which may be a dangling link.
bool exists(const QByteArray& path);

} // namespace ScannedTree
