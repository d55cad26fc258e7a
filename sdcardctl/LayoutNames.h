#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

#include "CardService.h"
#include "DirInfo.h"
#include "Result.h"

namespace sdcardctl {

/// The directories of the media configuration. The bus has no list of them: their names come from
/// the file that the service was started with, and everything else from the service.
/// @param configFile empty for the service's default
/// @return in the file's order; fails with BadConfiguration where the service would refuse the file
Result<QVector<DirInfo>> configuredDirectories(const QString& configFile);

/// The identifiers of the directories that are in the media configuration and known to the service,
/// each once; fails as configuredDirectories() and CardService do.
/// @param onlyWatched whether to leave out directories without a watched size
Result<QStringList> knownIdentifiers(const CardService& service, const QString& configFile,
                                     bool onlyWatched);

} // namespace sdcardctl
