#include "LinkTargets.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

namespace sdcardctl {

namespace {

constexpr int kMaxLinks = 40; // the kernel's own limit

QString parentOf(const QString& path)
{
    return path.left(path.lastIndexOf('/'));
}

QStringList components(const QString& path)
{
    return path.split('/', Qt::SkipEmptyParts);
}

} // namespace

LinkTargets::LinkTargets(const QString& mountPoint) : mMountPoint(QDir::cleanPath(mountPoint))
{
    mDirs.insert(mMountPoint);
}

void LinkTargets::addDir(const QString& path)
{
    mDirs.insert(QDir::cleanPath(mMountPoint + path));
}

void LinkTargets::addSymlink(const QString& path, const QString& target)
{
    mSymlinks.insert(QDir::cleanPath(mMountPoint + path), target);
}

LinkTargets::Outcome LinkTargets::outcomeOf(const QString& path, const QString& target) const
{
    QString place =
        target.startsWith('/') ? QString() : parentOf(QDir::cleanPath(mMountPoint + path));
    QStringList rest = components(target);
    int links = 1;
    while (!rest.isEmpty()) {
        const QString component = rest.takeFirst();
        if (component == QLatin1String(".")) {
            continue;
        }
        if (component == QLatin1String("..")) {
            place = parentOf(place);
            continue;
        }
        const QString next = place + "/" + component;
        const auto link = mSymlinks.constFind(next);
        if (link == mSymlinks.constEnd()) {
            place = next;
            continue;
        }
        if (++links > kMaxLinks) {
            return Endless;
        }
        rest = components(*link) + rest;
        if (link->startsWith('/')) {
            place.clear();
        }
    }
    if (place == mMountPoint || place.startsWith(mMountPoint + "/")) {
        return mDirs.contains(place) ? OnCard : MissingOnCard;
    }
    return QFileInfo::exists(place.isEmpty() ? QStringLiteral("/") : place) ? OffCard
                                                                            : MissingOffCard;
}

} // namespace sdcardctl
