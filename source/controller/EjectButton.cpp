#include "EjectButton.h"

#include <QFile>

#include "SdcardDefs.h"

namespace {

constexpr int kHoldReadings = 25;
constexpr int kPressed = 1;

} // namespace

bool EjectButton::exists()
{
    return QFile::exists(SdcardDefs::kInputSdEjectButton);
}

bool EjectButton::read()
{
    QFile button(SdcardDefs::kInputSdEjectButton);
    if (!button.open(QIODevice::ReadOnly)) {
        return false;
    }
    bool isNumber = false;
    const int level = button.readAll().trimmed().toInt(&isNumber);
    if (!isNumber) {
        return false;
    }
    mPressedReadings = level == kPressed ? mPressedReadings + 1 : 0;
    if (mPressedReadings < kHoldReadings) {
        return false;
    }
    reset();
    return true;
}
