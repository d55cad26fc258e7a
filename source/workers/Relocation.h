#pragma once

#include <QString>

#include <log4cxx/logger.h>

class ConfigHandler;

/// Moves data that other services left in outdated places of the card into the configured
/// directories. It keeps no state: what is left to do shows on the card. Its records name
/// ThreadPreparing's published functions.
class Relocation
{
public:
    /// @param config read-only while a job runs; outlives this object
    Relocation(const ConfigHandler& config, QString mountPoint, log4cxx::LoggerPtr logger);

    /// ThreadPreparing::prepareJobRelocateDatabase()
    void moveDatabase() const;
    /// ThreadPreparing::prepareJobRelocateCsv()
    void moveCsvFiles() const;

private:
    void removeDoubledCsvTree(const QString& doubledDir, const QString& topDir) const;

    const ConfigHandler& mConfig;
    QString mMountPoint;
    log4cxx::LoggerPtr mLogger;
};
