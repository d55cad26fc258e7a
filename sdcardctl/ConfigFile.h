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

/// Something in a media configuration for which the service refuses the file.
struct ConfigError
{
    int line;   ///< of the element, from 1; 0 where the error has no place in the text
    int column; ///< in characters, from 1
    QString message;
};

/// All of a media configuration that could be read, with the elements it came from.
struct ConfigFile
{
    ITCXMLNode root;
    QVector<CheckedDir> dirs; ///< in the file's order, also where there are errors
    QVector<CheckedSymlink> symlinks;
    QVector<ConfigError> errors; ///< empty if and only if the service accepts the file
};

/// Reads a media configuration to its end, as the service does up to the first error.
ConfigFile readConfigFile(const QString& file);

} // namespace sdcardctl
