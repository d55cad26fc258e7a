#pragma once

#include <QString>
#include <QVector>

#include <tavoutil/XMLDomParser.h>

#include "DirInfo.h"

namespace sdcardctl {

struct CheckedDir
{
    ITCXMLNode node;
    DirInfo info;
    qreal percent; ///< of the directory around it
};

struct CheckedSymlink
{
    ITCXMLNode node;
    SymlinkInfo info;
};

/// A reason why the service refuses a media configuration.
struct ConfigError
{
    int line;   ///< of the element, from 1; 0 if the error has no place in the text
    int column; ///< in characters, from 1
    QString message;
};

/// All readable parts of a media configuration, with the elements they came from.
struct ConfigFile
{
    ITCXMLNode root;
    QVector<CheckedDir> dirs; ///< in the file's order, even if there are errors
    QVector<CheckedSymlink> symlinks;
    QVector<ConfigError> errors; ///< empty if and only if the service accepts the file
};

/// Reads a media configuration like the service, but does not stop at the first error.
ConfigFile readConfigFile(const QString& file);

} // namespace sdcardctl
