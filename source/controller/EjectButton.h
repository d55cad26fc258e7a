#pragma once

/// The eject button beside the slot. It ejects the card when it has been held for 25 readings.
class EjectButton
{
public:
    /// Whether the board has the button.
    static bool exists();

    /// Forgets the readings so far.
    void reset() { mPressedReadings = 0; }
    /// Reads the button once. A reading that gives no number changes nothing.
    /// @return whether this reading completes a hold; the next one then begins a new one
    bool read();

private:
    int mPressedReadings = 0;
};
