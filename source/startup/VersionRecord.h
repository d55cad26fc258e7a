#pragma once

#include <QString>
#include <QVersionNumber>

/// What a build is called. `modified` and `external` are for builders other than the release's,
/// which leaves them at their defaults.
struct VersionRecord
{
    QVersionNumber number;
    QString builder;       ///< who built it; may be empty
    bool modified = false; ///< whether the sources differ from those of the version
    int external = 0;      ///< number of an external build; 0 for none

    /// The version in one line, such as "1.2.3 (external:4) by builder modified".
    QString toString() const;
};
