#include "sdcard.h"

#include <vector>

#include <QFile>
#include <QTextStream>

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
