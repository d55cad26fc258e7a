#include "sdcard.h"

#include <vector>

#include <QFile>
#include <QTextStream>

#include <tavoutil/TrackLog.h>

#include "SdcardDefs.h"
#include "config.h"
#include "fdisk.h"

struct Sdcard::LedWrite
{
    QString Sdcard::*file;
    QString Sdcard::*value;
};

bool Sdcard::writeLed(const QString& file, const QString& value) const
{
    QFile led(file);
    if (!led.open(QIODevice::WriteOnly)) {
        return false;
    }
    QTextStream(&led) << value;
    led.close();
    return true;
}

void Sdcard::showPattern(LedPattern pattern) const
{
    const auto writesOf = [pattern]() -> std::vector<LedWrite> {
        switch (pattern) {
        case LedPattern::Off:
            return {{&Sdcard::mGreenBrightnessFile, &Sdcard::mLedOff},
                    {&Sdcard::mRedBrightnessFile, &Sdcard::mLedOff}};
        case LedPattern::Mounted:
            return {{&Sdcard::mGreenBrightnessFile, &Sdcard::mLedOff},
                    {&Sdcard::mRedBrightnessFile, &Sdcard::mLedOn},
                    {&Sdcard::mRedTriggerFile, &Sdcard::mCardActivityTrigger}};
        case LedPattern::Busy:
            return {{&Sdcard::mGreenBrightnessFile, &Sdcard::mLedOff},
                    {&Sdcard::mRedTriggerFile, &Sdcard::mBlinkTrigger},
                    {&Sdcard::mRedDelayOnFile, &Sdcard::mFastBlinkMs},
                    {&Sdcard::mRedDelayOffFile, &Sdcard::mFastBlinkMs}};
        case LedPattern::Unmounted:
            // Writing brightness 0 ends the blinking; the trigger stays.
            return {{&Sdcard::mRedBrightnessFile, &Sdcard::mLedOff},
                    {&Sdcard::mGreenBrightnessFile, &Sdcard::mLedOn}};
        case LedPattern::NotMountable:
            // The delays are left to the driver.
            return {{&Sdcard::mGreenTriggerFile, &Sdcard::mBlinkTrigger},
                    {&Sdcard::mRedBrightnessFile, &Sdcard::mLedOff}};
        }
        return {};
    };
    for (const LedWrite& write : writesOf()) {
        writeLed(this->*write.file, this->*write.value);
    }
}

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
