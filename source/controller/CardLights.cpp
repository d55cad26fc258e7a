#include "CardLights.h"

#include <array>

#include <QFile>
#include <QTextStream>

namespace {

#define RED_LED "/opt/tavo/tavodev/mmc1_leds/mmc-red/"
#define GREEN_LED "/opt/tavo/tavodev/mmc1_leds/mmc-green/"

constexpr auto kRedBrightness = RED_LED "brightness";
constexpr auto kRedTrigger = RED_LED "trigger";
constexpr auto kRedDelayOn = RED_LED "delay_on";
constexpr auto kRedDelayOff = RED_LED "delay_off";
constexpr auto kGreenBrightness = GREEN_LED "brightness";
constexpr auto kGreenTrigger = GREEN_LED "trigger";

constexpr auto kOn = "255";
constexpr auto kOff = "0";
constexpr auto kFastBlinkMs = "100";
constexpr auto kBlinkTrigger = "timer";
constexpr auto kCardActivityTrigger = "mmc0";

struct LedWrite
{
    CardLights::Pattern pattern;
    const char* file;
    const char* value;
};

using Pattern = CardLights::Pattern;

// Missing on purpose: NotMountable leaves the delays to the driver. Unmounted does not reset the
// red trigger because brightness 0 ends the blinking.
// clang-format off
constexpr std::array<LedWrite, 13> kWrites{{
    {Pattern::Off,          kGreenBrightness, kOff},
    {Pattern::Off,          kRedBrightness,   kOff},
    {Pattern::Mounted,      kGreenBrightness, kOff},
    {Pattern::Mounted,      kRedBrightness,   kOn},
    {Pattern::Mounted,      kRedTrigger,      kCardActivityTrigger},
    {Pattern::Busy,         kGreenBrightness, kOff},
    {Pattern::Busy,         kRedTrigger,      kBlinkTrigger},
    {Pattern::Busy,         kRedDelayOn,      kFastBlinkMs},
    {Pattern::Busy,         kRedDelayOff,     kFastBlinkMs},
    {Pattern::Unmounted,    kRedBrightness,   kOff},
    {Pattern::Unmounted,    kGreenBrightness, kOn},
    {Pattern::NotMountable, kGreenTrigger,    kBlinkTrigger},
    {Pattern::NotMountable, kRedBrightness,   kOff},
}};
// clang-format on

} // namespace

void CardLights::show(Pattern pattern)
{
    for (const LedWrite& write : kWrites) {
        QFile led(QString::fromLatin1(write.file));
        if (write.pattern == pattern && led.open(QIODevice::WriteOnly)) {
            QTextStream(&led) << write.value;
        }
    }
}
