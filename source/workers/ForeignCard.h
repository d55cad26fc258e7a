#pragma once

#include <QString>

#include <tavoutil/TrackLog.h>

/// Inspects the partition table of the card. Has the card formatted if it is foreign, that is, if
/// the table is anything but one single Linux partition.
/// @param origin the function that the records name
/// @param device device path of the card's partition
/// @return SdcardDefs::kMmcFormatNotNeeded or kMmcFormatCreated; otherwise the code of the failure:
/// negative if the table cannot be read, else that of the format command
int formatForeignCard(const tavoutil::RecordOrigin& origin, const log4cxx::LoggerPtr& logger,
                      const QString& device);
