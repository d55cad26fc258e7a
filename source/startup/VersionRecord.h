#pragma once

#include <QString>
#include <QVersionNumber>

/// The name of a build. The release leaves `modified` and `external` at their defaults; other
/// builders set them.
struct VersionRecord
{
    QVersionNumber number;
    QString builder;       ///< who built it; may be empty
    bool modified = false; ///< whether the sources differ from those of the version
    int external = 0;      ///< number of an external build; 0 for none

    /// One line, such as "1.2.3 (external:4) by builder modified".
    QString toString() const;
};
