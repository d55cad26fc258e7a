#include "LayoutApplication.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

namespace {

constexpr tavoutil::RecordOrigin kOrigin{"config", "bool ConfigHandler::applyConfigLayout() const"};

constexpr mode_t kPermissionBits = 0777;

// A configured path, split before its last component.
struct EntryPath
{
    explicit EntryPath(const QString& path)
    {
        const QByteArray whole = path.toUtf8();
        int end = whole.size();
        while (end > 1 && whole[end - 1] == '/') {
            --end;
        }
        const int slash = whole.lastIndexOf('/', end - 1);
        parent = whole.left(slash);
        // Must not be an absolute path, whatever the configured name.
        name = "." + whole.mid(slash);
    }

    QByteArray parent; // as in CardRoot::open()
    QByteArray name;   // below the parent
};

int errorOf(int result)
{
    return result == 0 ? 0 : errno;
}

int makeDir(const OpenedPlace& parent, const QByteArray& name, mode_t mode)
{
    return parent.isOpen() ? errorOf(::mkdirat(parent.fd(), name.constData(), mode))
                           : parent.error();
}

int setMode(const OpenedPlace& place, mode_t mode)
{
    // fchmod(2) refuses O_PATH descriptors.
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(place.fd());
    return errorOf(::chmod(link.constData(), mode));
}

int setOwner(const OpenedPlace& place, DirInfo::Ids owner)
{
    return place.isOpen()
               ? errorOf(::fchownat(place.fd(), "", owner.user, owner.group, AT_EMPTY_PATH))
               : place.error();
}

bool hasEntry(const OpenedPlace& parent, const QByteArray& name, struct stat& status)
{
    return parent.isOpen() &&
           ::fstatat(parent.fd(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

int makeSymlink(const QByteArray& content, const OpenedPlace& parent, const QByteArray& name)
{
    return parent.isOpen()
               ? errorOf(::symlinkat(content.constData(), parent.fd(), name.constData()))
               : parent.error();
}

} // namespace

LayoutApplication::LayoutApplication(const QString& mountPoint, log4cxx::LoggerPtr logger)
    : mMountPoint(mountPoint), mCard(mountPoint), mLogger(std::move(logger))
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
    const OpenedPlace place = mCard.open(dir.path.toUtf8());
    if (!place.isOpen()) {
        return createDir(dir);
    }
    return mCard.isElsewhere(place) ? leaveAlone(dir.path) : correctDir(dir, place);
}

bool LayoutApplication::createDir(const DirInfo& dir) const
{
    const EntryPath entry(dir.path);
    const OpenedPlace parent = mCard.open(entry.parent);
    if (mCard.isElsewhere(parent)) {
        return leaveAlone(dir.path);
    }
    const QByteArray subject = "'" + fullPath(dir.path) + "'";
    bool applied = true;
    if (const int error = makeDir(parent, entry.name, dir.modeBits())) {
        applied = fail("Can't create directory for " + subject, error);
    }
    const OpenedPlace created = mCard.open(dir.path.toUtf8());
    if (mCard.isElsewhere(created)) {
        return leaveAlone(dir.path);
    }
    if (const int error = setOwner(created, dir.ownerIds())) {
        applied = fail("Can't set directory owner for " + subject, error);
    }
    return applied;
}

bool LayoutApplication::correctDir(const DirInfo& dir, const OpenedPlace& place) const
{
    const auto subject = [&](const char* property, const std::string& configured) {
        return QByteArray("directory ") + property + " '" + QByteArray::fromStdString(configured) +
               "' for '" + fullPath(dir.path) + "'";
    };
    bool applied = true;
    const mode_t mode = dir.modeBits();
    if ((place.status().st_mode & kPermissionBits) != mode) {
        if (const int error = setMode(place, mode)) {
            applied = fail("Can't set " + subject("mode", dir.mode), error);
        } else {
            TRACK_WARN_FROM(kOrigin, mLogger, "Correct " + subject("mode", dir.mode));
        }
    }
    const DirInfo::Ids owner = dir.ownerIds();
    if (place.status().st_uid != owner.user || place.status().st_gid != owner.group) {
        if (const int error = setOwner(place, owner)) {
            applied = fail("Can't set " + subject("owner", dir.owner), error);
        } else {
            TRACK_WARN_FROM(kOrigin, mLogger, "Correct " + subject("owner", dir.owner));
        }
    }
    return applied;
}

bool LayoutApplication::applySymlink(const SymlinkInfo& symlink) const
{
    const EntryPath entry(symlink.path);
    const OpenedPlace parent = mCard.open(entry.parent);
    if (mCard.isElsewhere(parent)) {
        return leaveAlone(symlink.path);
    }
    const QByteArray subject = "symlink '" + fullPath(symlink.path) + "'";
    const QByteArray wanted = symlink.target.toLocal8Bit();
    bool applied = true;

    struct stat status = {};
    if (hasEntry(parent, entry.name, status)) {
        // It may not be a link, and may have any size.
        QByteArray content(static_cast<int>(std::min<qint64>(status.st_size, PATH_MAX)), '\0');
        const ssize_t length = ::readlinkat(parent.fd(), entry.name.constData(), content.data(),
                                            static_cast<std::size_t>(content.size()));
        if (length < 0) {
            const int error = errno;
            return fail("Cannot read target of existing " + subject, error);
        }
        content.truncate(static_cast<int>(length));
        if (content == wanted) {
            return true;
        }
        if (const int error = errorOf(::unlinkat(parent.fd(), entry.name.constData(), 0))) {
            applied = fail("Cannot unlink existing " + subject, error);
        }
    }

    if (!hasEntry(parent, entry.name, status)) {
        if (const int error = makeSymlink(wanted, parent, entry.name)) {
            applied = fail("Cannot create " + subject, error);
        }
    }
    return applied;
}

bool LayoutApplication::fail(const QByteArray& what, int error) const
{
    TRACK_ERROR_FROM(kOrigin, mLogger, what + " (" + tavoutil::systemErrorText(error) + ")");
    return false;
}

bool LayoutApplication::leaveAlone(const QString& path) const
{
    TRACK_ERROR_FROM(kOrigin, mLogger, CardRoot::elsewhereText(fullPath(path)));
    return false;
}
