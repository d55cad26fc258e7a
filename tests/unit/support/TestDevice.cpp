#include "TestDevice.h"

#include <cerrno>
#include <cstring>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Exists on every machine, and the tests need nothing below it.
constexpr auto kBase = "/mnt";
constexpr mode_t kDirectoryMode = 0755;

QString failed(const char* step)
{
    return QStringLiteral("%1: %2").arg(QString::fromLatin1(step),
                                        QString::fromLocal8Bit(std::strerror(errno)));
}

} // namespace

QString TestDevice::enter()
{
    if (::unshare(CLONE_NEWNS) != 0) {
        return failed("unshare (the tests run as root)");
    }
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failed("make mounts private");
    }
    if (::mount("tmpfs", kBase, "tmpfs", 0, "mode=0755") != 0 || ::chdir(kBase) != 0) {
        return failed("mount tmpfs");
    }
    for (const char* const directory : {"upper", "work", "root"}) {
        if (::mkdir(directory, kDirectoryMode) != 0) {
            return failed("mkdir");
        }
    }
    const QByteArray layers =
        QByteArray("lowerdir=/,upperdir=") + kBase + "/upper,workdir=" + kBase + "/work";
    if (::mount("overlay", "root", "overlay", 0, layers.constData()) != 0) {
        return failed("mount overlay");
    }
    for (const char* const tree : {"/proc", "/sys", "/dev"}) {
        const QByteArray target = QByteArray("root") + tree;
        if (::mount(tree, target.constData(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            return failed("bind");
        }
    }
#ifdef COVERAGE_DIRECTORY
    const QByteArray counts = QByteArray("root") + COVERAGE_DIRECTORY;
    if (::mount(COVERAGE_DIRECTORY, counts.constData(), nullptr, MS_BIND, nullptr) != 0) {
        return failed("bind the directory of the coverage counts");
    }
#endif
    if (::chdir("root") != 0 || ::syscall(SYS_pivot_root, ".", ".") != 0 ||
        ::umount2(".", MNT_DETACH) != 0 || ::chdir("/") != 0) {
        return failed("pivot_root");
    }
    return {};
}

void TestDevice::writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

void TestDevice::writeScript(const QString& path, const QByteArray& content)
{
    // Not through the old file, which may be a link to a tool with many names.
    QFile::remove(path);
    writeFile(path, content);
    ::chmod(QFile::encodeName(path).constData(), kDirectoryMode);
}

QByteArray TestDevice::readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestDevice::remove(const QString& path)
{
    if (QFileInfo(path).isDir() && !QFileInfo(path).isSymLink()) {
        QDir(path).removeRecursively();
    } else {
        QFile::remove(path);
    }
}

bool TestDevice::mountTmpfs(const QString& path, qint64 bytes, bool readOnly)
{
    QDir().mkpath(path);
    // By default the machine's memory also limits the number of files.
    const QByteArray options = "size=" + QByteArray::number(bytes) + ",nr_inodes=0";
    return ::mount("tmpfs", QFile::encodeName(path).constData(), "tmpfs",
                   readOnly ? static_cast<unsigned long>(MS_RDONLY) : 0UL,
                   options.constData()) == 0;
}

void TestDevice::unmountAll(const QString& path)
{
    while (::umount2(QFile::encodeName(path).constData(), MNT_DETACH) == 0) {
    }
}
