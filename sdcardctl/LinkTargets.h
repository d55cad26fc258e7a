#pragma once

#include <QHash>
#include <QSet>
#include <QString>

namespace sdcardctl {

/// Where links lead on a card that is laid out and otherwise empty.
class LinkTargets
{
public:
    enum Outcome
    {
        OnCard,        ///< a configured directory
        MissingOnCard, ///< a place on the card at which nothing is configured
        OffCard,       ///< outside the card, and there on this machine
        MissingOffCard,
        Endless ///< the links lead in a circle
    };

    /// @param mountPoint absolute
    explicit LinkTargets(const QString& mountPoint);

    /// @param path relative to the mount point, beginning with "/"
    void addDir(const QString& path);
    void addSymlink(const QString& path, const QString& target);

    /// Where a link at @p path with @p target leads, by way of other links as far as need be.
    Outcome outcomeOf(const QString& path, const QString& target) const;

private:
    QString mMountPoint;
    QSet<QString> mDirs;
    QHash<QString, QString> mSymlinks;
};

} // namespace sdcardctl
