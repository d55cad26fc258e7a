#include "ForeignCard.h"

#include "ProgramRunner.h"
#include "SdcardDefs.h"
#include "fdisk.h"

int formatForeignCard(const tavoutil::RecordOrigin& origin, const log4cxx::LoggerPtr& logger,
                      const QString& device)
{
    int linuxPartitions = 0;
    int otherPartitions = 0;
    const int code = FDisk::getNumberOfPartitions(logger, device.toStdString(), linuxPartitions,
                                                  otherPartitions);
    if (code != 0) {
        return code;
    }
    if (linuxPartitions == 1 && otherPartitions == 0) {
        return SdcardDefs::kMmcFormatNotNeeded;
    }
    TRACK_INFO_FROM(origin, logger, "New SD Card detected");
    return ProgramRunner::run(logger, SdcardDefs::kMmcFormatCmd, {}, true,
                              SdcardDefs::kMmcFormatTimeoutMs);
}
