#pragma once

#include <QString>
#include <QVector>

#include "Result.h"
#include "DirInfo.h"

namespace sdcardctl {

/// The directories of the media configuration. The bus has no list of them: whoever wants to show
/// all takes their names from the file that the service was started with, and asks the service for
/// all else, so that what is shown is what the service does.
/// @param configFile empty for the service's default
/// @return in the file's order; fails with BadConfiguration where the service would refuse the file
Result<QVector<DirInfo>> configuredDirectories(const QString& configFile);

} // namespace sdcardctl
