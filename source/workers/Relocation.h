#pragma once

#include <QByteArray>
#include <QString>

#include <log4cxx/logger.h>

#include "CardRoot.h"

class ConfigHandler;

/// Moves data that other services left in outdated places of the card into the configured
/// directories. Never moves anything on another file system than the card's. Keeps no state: the
/// card shows what is left to do. The records name the published functions of ThreadPreparing.
class Relocation
{
public:
    /// @param config read-only while a job runs; outlives this object
    Relocation(const ConfigHandler& config, const QString& mountPoint, log4cxx::LoggerPtr logger);

    /// ThreadPreparing::prepareJobRelocateDatabase()
    void moveDatabase() const;
    /// ThreadPreparing::prepareJobRelocateCsv()
    void moveCsvFiles() const;

private:
    bool isCsvElsewhere(const QByteArray& csvPath, const QByteArray& doubledPath) const;
    void removeDoubledCsvTree(const QString& doubledDir, const QString& topDir) const;

    const ConfigHandler& mConfig;
    QString mMountPoint;
    CardRoot mCard;
    log4cxx::LoggerPtr mLogger;
};
