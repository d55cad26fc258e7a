#pragma once

#include <QVector>

#include <tavoutil/XMLDomParser.h>

#include "ConfigCheck.h"
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

/// All of a media configuration that could be read, with the elements it came from.
struct CheckedConfig
{
    ITCXMLNode root;
    QVector<CheckedDir> dirs;
    QVector<CheckedSymlink> symlinks;
};

/// What is surely wrong about a configuration although the service takes it. Owners and targets
/// outside the card are looked up on this machine.
QVector<ConfigFinding> warningsOf(const CheckedConfig& config);

} // namespace sdcardctl
