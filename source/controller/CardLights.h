#pragma once

/// The red and the green LED beside the slot.
namespace CardLights {

/// The patterns of the two LEDs.
enum class Pattern
{
    Off,
    Mounted,
    Busy,
    Unmounted,
    NotMountable,
};

/// Writes the values of the pattern to the LED files, in order. Skips files that it cannot open,
/// because a board may lack an LED.
void show(Pattern pattern);

} // namespace CardLights
