#include "config.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

namespace {

constexpr mode_t kPermissionBits = 0777;

// The error of the system call that has just failed, as the records of this unit show it. To be
// taken before anything else may fail.
QByteArray reason()
{
    return " (" + tavoutil::systemErrorText(errno) + ")";
}

} // namespace

bool ConfigHandler::applyConfigLayout() const
{
    bool applied = true;
    for (const DirInfo& dir : mDirs) {
        applied = applyDir(dir) && applied;
    }
    for (const SymlinkInfo& symlink : mSymlinks) {
        applied = applySymlink(symlink) && applied;
    }
    return applied;
}

bool ConfigHandler::applyDir(const DirInfo& dir) const
{
    const QByteArray fullPath = (mMountPoint + dir.path).toUtf8();
    struct stat status = {};
    if (::stat(fullPath.constData(), &status) != 0) {
        return createDir(dir, fullPath);
    }
    return correctDir(dir, fullPath, status.st_mode, {status.st_uid, status.st_gid});
}

bool ConfigHandler::createDir(const DirInfo& dir, const QByteArray& fullPath) const
{
    bool applied = true;
    if (::mkdir(fullPath.constData(), dir.modeBits()) != 0) {
        const QByteArray why = reason();
        TRACK_ERROR(logger(), "Can't create directory for '" + fullPath + "'" + why);
        applied = false;
    }
    const DirInfo::Ids owner = dir.ownerIds();
    if (::chown(fullPath.constData(), owner.user, owner.group) != 0) {
        const QByteArray why = reason();
        TRACK_ERROR(logger(), "Can't set directory owner for '" + fullPath + "'" + why);
        applied = false;
    }
    return applied;
}

bool ConfigHandler::correctDir(const DirInfo& dir, const QByteArray& fullPath, mode_t currentMode,
                               DirInfo::Ids currentOwner) const
{
    bool applied = true;
    const mode_t mode = dir.modeBits();
    if ((currentMode & kPermissionBits) != mode) {
        const QByteArray subject =
            "directory mode '" + QByteArray::fromStdString(dir.mode) + "' for '" + fullPath + "'";
        if (::chmod(fullPath.constData(), mode) == 0) {
            TRACK_WARN(logger(), "Correct " + subject);
        } else {
            const QByteArray why = reason();
            TRACK_ERROR(logger(), "Can't set " + subject + why);
            applied = false;
        }
    }
    const DirInfo::Ids owner = dir.ownerIds();
    if (currentOwner.user != owner.user || currentOwner.group != owner.group) {
        const QByteArray subject =
            "directory owner '" + QByteArray::fromStdString(dir.owner) + "' for '" + fullPath + "'";
        if (::chown(fullPath.constData(), owner.user, owner.group) == 0) {
            TRACK_WARN(logger(), "Correct " + subject);
        } else {
            const QByteArray why = reason();
            TRACK_ERROR(logger(), "Can't set " + subject + why);
            applied = false;
        }
    }
    return applied;
}

bool ConfigHandler::applySymlink(const SymlinkInfo& symlink) const
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
            TRACK_ERROR(logger(),
                        "Cannot read target of existing symlink '" + linkPath + "'" + why);
            return false;
        }
        content.truncate(static_cast<int>(length));
        if (content == wanted) {
            return true;
        }
        if (::unlink(linkPath.constData()) != 0) {
            const QByteArray why = reason();
            TRACK_ERROR(logger(), "Cannot unlink existing symlink '" + linkPath + "'" + why);
            applied = false;
        }
    }

    if (::lstat(linkPath.constData(), &status) != 0 &&
        ::symlink(wanted.constData(), linkPath.constData()) != 0) {
        const QByteArray why = reason();
        TRACK_ERROR(logger(), "Cannot create symlink '" + linkPath + "'" + why);
        applied = false;
    }
    return applied;
}
