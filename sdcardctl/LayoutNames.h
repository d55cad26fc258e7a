#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

#include "CardService.h"
#include "DirInfo.h"
#include "Result.h"

namespace sdcardctl {

/// The directories of the media configuration. The bus does not list them: their names come from
/// the file that the service was started with, everything else from the service.
/// @param configFile empty for the service's default
/// @return in the file's order; fails with BadConfiguration if the service would refuse the file
Result<QVector<DirInfo>> configuredDirectories(const QString& configFile);

/// The identifiers that are in the media configuration and that the service knows, each once; fails
/// like configuredDirectories() and CardService.
/// @param onlyWatched whether to leave out directories without a watched size
Result<QStringList> knownIdentifiers(const CardService& service, const QString& configFile,
                                     bool onlyWatched);

} // namespace sdcardctl
