#pragma once

/// The eject button beside the slot. It ejects the card after 25 pressed readings in a row.
class EjectButton
{
public:
    /// Whether the board has the button.
    static bool exists();

    /// Forgets the readings so far.
    void reset() { mPressedReadings = 0; }
    /// Reads the button once. A reading that is not a number changes nothing.
    /// @return whether this reading is the 25th in a row; the count then starts again
    bool read();

private:
    int mPressedReadings = 0;
};
