#pragma once

/// A file in /run that exists from a mount by this service until the card has been prepared. So a
/// card whose mounting or preparation was cut short (by SIGKILL, or as its state was left) is not
/// taken for one that needs no preparation, although it is mounted. It does not survive a restart
/// of the device, and neither does the mount.
namespace UnpreparedMark {

/// @return false with errno where the file cannot be created
bool set();
bool isSet();
void clear();

} // namespace UnpreparedMark
