#pragma once

/// A file in /run that exists from a mount by this service until the card has been prepared. It
/// marks a mounted card that still needs preparation because its mounting or preparation was cut
/// short (by SIGKILL, or because its state was left). A restart of the device ends both the mark
/// and the mount.
namespace UnpreparedMark {

/// @return false with errno if the file cannot be created
bool set();
bool isSet();
void clear();

} // namespace UnpreparedMark
