#include "LayoutNames.h"

namespace sdcardctl {

Result<QVector<DirInfo>> configuredDirectories(const QString& configFile)
{
    ConfigHandler config;
    if (!configFile.isEmpty()) {
        config.setConfigFile(configFile);
    }
    if (!config.setup()) {
        return Failure{ExitStatus::BadConfiguration,
                       "The media configuration '" + config.configFile() +
                           "' cannot be read. \"sdcardctl check-config " + config.configFile() +
                           "\" tells why; --config names another."};
    }
    return config.dirs();
}

} // namespace sdcardctl
