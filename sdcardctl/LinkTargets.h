#pragma once

#include <QHash>
#include <QSet>
#include <QString>

namespace sdcardctl {

/// Resolves links on a card that contains the configured layout and nothing else.
class LinkTargets
{
public:
    enum Outcome
    {
        OnCard,        ///< a configured directory
        MissingOnCard, ///< a place on the card without a configured entry
        OffCard,       ///< outside the card, exists on this machine
        MissingOffCard,
        Endless ///< the links form a loop
    };

    /// @param mountPoint absolute
    explicit LinkTargets(const QString& mountPoint);

    /// @param path relative to the mount point, beginning with "/"
    void addDir(const QString& path);
    void addSymlink(const QString& path, const QString& target);

    /// The target of a link at @p path with @p target, after all links on the way.
    Outcome outcomeOf(const QString& path, const QString& target) const;

private:
    QString mMountPoint;
    QSet<QString> mDirs;
    QHash<QString, QString> mSymlinks;
};

} // namespace sdcardctl
