#include "ScannedTree.h"

#include <algorithm>
#include <ctime>
#include <numeric>

#include <QProcess>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 kNanosecondsPerSecond = 1'000'000'000;

// "seconds.fraction", with ten decimals.
qint64 toNanoseconds(const QByteArray& time)
{
    const int point = time.indexOf('.');
    return time.left(point).toLongLong() * kNanosecondsPerSecond +
           time.mid(point + 1, 9).toLongLong();
}

qint64 timeOf(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return qint64{now.tv_sec} * kNanosecondsPerSecond + now.tv_nsec;
}

} // namespace

void ScannedTree::createDirectory(const QByteArray& path)
{
    if (::mkdir(path.constData(), 0755) != 0) {
        qFatal("cannot create %s", path.constData());
    }
}

void ScannedTree::createFile(const QByteArray& path, qint64 size)
{
    const int file = ::open(path.constData(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (file < 0 || ::ftruncate(file, size) != 0) {
        qFatal("cannot create %s", path.constData());
    }
    ::close(file);
}

void ScannedTree::createFilesInOrder(const QList<QByteArray>& paths, qint64 size)
{
    for (const QByteArray& path : paths) {
        createFile(path, size);
        awaitNextChangeTime();
    }
}

void ScannedTree::createNames(const QByteArray& file, const QByteArray& directory, int count,
                              int nameLength)
{
    for (int i = 0; i < count; ++i) {
        const QByteArray name =
            directory + "/" + QByteArray::number(i).rightJustified(nameLength, '0');
        if (::link(file.constData(), name.constData()) != 0) {
            qFatal("cannot create %s", name.constData());
        }
    }
}

void ScannedTree::awaitNextChangeTime()
{
    // Change times come from the coarse clock. They may be ahead of it if one was read meanwhile.
    const qint64 latestYet = timeOf(CLOCK_REALTIME);
    while (timeOf(CLOCK_REALTIME_COARSE) <= latestYet) {
        ::usleep(500);
    }
}

QList<ScannedTree::Entry> ScannedTree::list(const QByteArray& path)
{
    QProcess find;
    find.start("/usr/bin/find", {path, "-printf", "%y %s %C@ %p\\0"});
    if (!find.waitForFinished() || find.exitCode() != 0) {
        qFatal("cannot list %s: %s", path.constData(), find.readAllStandardError().constData());
    }
    QList<Entry> entries;
    for (const QByteArray& line : find.readAllStandardOutput().split('\0')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 3) {
            const QByteArray name =
                line.mid(fields[0].size() + fields[1].size() + fields[2].size() + 3);
            entries.append(
                {name, fields[1].toLongLong(), toNanoseconds(fields[2]), fields[0] == "d"});
        }
    }
    return entries;
}

qint64 ScannedTree::sizeOf(const QList<Entry>& entries)
{
    return std::accumulate(entries.begin(), entries.end(), qint64{0},
                           [](qint64 sum, const Entry& entry) { return sum + entry.size; });
}

qint64 ScannedTree::sizeOf(const QByteArray& path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 ? status.st_size : -1;
}

bool ScannedTree::exists(const QByteArray& path)
{
    return sizeOf(path) >= 0;
}
