#include "sdcard.h"

#include <QFile>

#include <tavoutil/TrackLog.h>

#include "SdcardDefs.h"
#include "config.h"
#include "fdisk.h"

void Sdcard::checkHardware()
{
    if (!mConfig.hasMmcDevice() || QFile::exists(mConfig.devicePath())) {
        return;
    }
    TRACK_INFO(logger(), "SD Card is available but not initialized, check it...");
    int linuxPartitions = 0;
    int otherPartitions = 0;
    if (FDisk::getNumberOfPartitions(logger(), mConfig.devicePath().toStdString(), linuxPartitions,
                                     otherPartitions) != 0) {
        return;
    }
    if (linuxPartitions == 1 && otherPartitions == 0) {
        TRACK_INFO(logger(), "SD Card Linux Ext4 format is ok");
        return;
    }
    TRACK_INFO(logger(), "New SD Card detected");
    const int code =
        runCMD(logger(), SdcardDefs::kMmcFormatCmd, {}, true, SdcardDefs::kMmcFormatTimeoutMs);
    if (code == SdcardDefs::kMmcFormatNotNeeded) {
        TRACK_INFO(logger(), "SD Card Linux Ext4 format is ok");
    } else if (code == SdcardDefs::kMmcFormatCreated) {
        setFsBirthDate(QDateTime::currentDateTime());
        TRACK_INFO(logger(), "SD Card Linux Ext4 format was new initialized");
    }
}
