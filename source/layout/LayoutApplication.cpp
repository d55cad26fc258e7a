#include "LayoutApplication.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

namespace {

constexpr tavoutil::RecordOrigin kOrigin{"config", "bool ConfigHandler::applyConfigLayout() const"};

constexpr mode_t kPermissionBits = 0777;

// The error of the system call that has just failed, as the records of this unit show it. To be
// taken before anything else may fail.
QByteArray reason()
{
    return " (" + tavoutil::systemErrorText(errno) + ")";
}

} // namespace

LayoutApplication::LayoutApplication(QString mountPoint, log4cxx::LoggerPtr logger)
    : mMountPoint(std::move(mountPoint)), mLogger(std::move(logger))
{}

bool LayoutApplication::apply(const QVector<DirInfo>& dirs,
                              const QVector<SymlinkInfo>& symlinks) const
{
    bool applied = true;
    for (const DirInfo& dir : dirs) {
        applied = applyDir(dir) && applied;
    }
    for (const SymlinkInfo& symlink : symlinks) {
        applied = applySymlink(symlink) && applied;
    }
    return applied;
}

bool LayoutApplication::applyDir(const DirInfo& dir) const
{
    const QByteArray fullPath = (mMountPoint + dir.path).toUtf8();
    struct stat status = {};
    if (::stat(fullPath.constData(), &status) != 0) {
        return createDir(dir, fullPath);
    }
    return correctDir(dir, fullPath, status.st_mode, {status.st_uid, status.st_gid});
}

bool LayoutApplication::createDir(const DirInfo& dir, const QByteArray& fullPath) const
{
    bool applied = true;
    if (::mkdir(fullPath.constData(), dir.modeBits()) != 0) {
        const QByteArray why = reason();
        TRACK_ERROR_FROM(kOrigin, mLogger, "Can't create directory for '" + fullPath + "'" + why);
        applied = false;
    }
    const DirInfo::Ids owner = dir.ownerIds();
    if (::chown(fullPath.constData(), owner.user, owner.group) != 0) {
        const QByteArray why = reason();
        TRACK_ERROR_FROM(kOrigin, mLogger,
                         "Can't set directory owner for '" + fullPath + "'" + why);
        applied = false;
    }
    return applied;
}

bool LayoutApplication::correctDir(const DirInfo& dir, const QByteArray& fullPath,
                                   mode_t currentMode, DirInfo::Ids currentOwner) const
{
    bool applied = true;
    const mode_t mode = dir.modeBits();
    if ((currentMode & kPermissionBits) != mode) {
        const QByteArray subject =
            "directory mode '" + QByteArray::fromStdString(dir.mode) + "' for '" + fullPath + "'";
        if (::chmod(fullPath.constData(), mode) == 0) {
            TRACK_WARN_FROM(kOrigin, mLogger, "Correct " + subject);
        } else {
            const QByteArray why = reason();
            TRACK_ERROR_FROM(kOrigin, mLogger, "Can't set " + subject + why);
            applied = false;
        }
    }
    const DirInfo::Ids owner = dir.ownerIds();
    if (currentOwner.user != owner.user || currentOwner.group != owner.group) {
        const QByteArray subject =
            "directory owner '" + QByteArray::fromStdString(dir.owner) + "' for '" + fullPath + "'";
        if (::chown(fullPath.constData(), owner.user, owner.group) == 0) {
            TRACK_WARN_FROM(kOrigin, mLogger, "Correct " + subject);
        } else {
            const QByteArray why = reason();
            TRACK_ERROR_FROM(kOrigin, mLogger, "Can't set " + subject + why);
            applied = false;
        }
    }
    return applied;
}

bool LayoutApplication::applySymlink(const SymlinkInfo& symlink) const
{
    const QByteArray linkPath = (mMountPoint + symlink.path).toUtf8();
    const QByteArray wanted = symlink.target.toLocal8Bit();
    bool applied = true;

    struct stat status = {};
    if (::lstat(linkPath.constData(), &status) == 0) {
        // Something else than a link may be there, and of any size.
        QByteArray content(static_cast<int>(std::min<qint64>(status.st_size, PATH_MAX)), '\0');
        const ssize_t length = ::readlink(linkPath.constData(), content.data(),
                                          static_cast<std::size_t>(content.size()));
        if (length < 0) {
            const QByteArray why = reason();
            TRACK_ERROR_FROM(kOrigin, mLogger,
                             "Cannot read target of existing symlink '" + linkPath + "'" + why);
            return false;
        }
        content.truncate(static_cast<int>(length));
        if (content == wanted) {
            return true;
        }
        if (::unlink(linkPath.constData()) != 0) {
            const QByteArray why = reason();
            TRACK_ERROR_FROM(kOrigin, mLogger,
                             "Cannot unlink existing symlink '" + linkPath + "'" + why);
            applied = false;
        }
    }

    if (::lstat(linkPath.constData(), &status) != 0 &&
        ::symlink(wanted.constData(), linkPath.constData()) != 0) {
        const QByteArray why = reason();
        TRACK_ERROR_FROM(kOrigin, mLogger, "Cannot create symlink '" + linkPath + "'" + why);
        applied = false;
    }
    return applied;
}
