#include "LayoutNames.h"

#include "ConfigFile.h"
#include "ConfigReading.h"

namespace sdcardctl {

Result<QVector<DirInfo>> configuredDirectories(const QString& configFile)
{
    const QString file = configFile.isEmpty() ? ConfigReading::kDefaultFile : configFile;
    const ConfigFile config = readConfigFile(file);
    if (!config.errors.isEmpty()) {
        return Failure{ExitStatus::BadConfiguration,
                       "The media configuration '" + file +
                           "' cannot be read. \"sdcardctl check-config " + file +
                           "\" lists its errors; --config selects another file."};
    }
    QVector<DirInfo> directories;
    for (const CheckedDir& dir : config.dirs) {
        directories.append(dir.info);
    }
    return directories;
}

Result<QStringList> knownIdentifiers(const CardService& service, const QString& configFile,
                                     bool onlyWatched)
{
    const auto directories = configuredDirectories(configFile);
    if (!directories) {
        return directories.failure();
    }
    QStringList identifiers;
    for (const DirInfo& directory : *directories) {
        if ((onlyWatched && !directory.capacitywatch) || identifiers.contains(directory.name)) {
            continue;
        }
        const auto path = service.directoryPath(directory.name);
        if (path) {
            identifiers.append(directory.name);
        } else if (path.failure().status != ExitStatus::UnknownDirectory) {
            return path.failure();
        }
    }
    return identifiers;
}

} // namespace sdcardctl
