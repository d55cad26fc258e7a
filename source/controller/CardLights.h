#pragma once

/// The red and the green LED beside the slot.
namespace CardLights {

/// What the two LEDs show together.
enum class Pattern
{
    Off,
    Mounted,      ///< red, and dark while the card is busy
    Busy,         ///< red blinks fast
    Unmounted,    ///< green
    NotMountable, ///< green blinks
};

/// Writes the pattern's values to the LED files, in order. A file that cannot be opened, as on a
/// board without that LED, is skipped.
void show(Pattern pattern);

} // namespace CardLights
