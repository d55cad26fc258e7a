#pragma once

#include <QStringList>

/// Records how long the service waits for the programs that it starts. Only in test programs that
/// link process_waits.
namespace ProcessWaits {

/// The waits since the last take(), in milliseconds: "e2fsck -p /dev/a: start 30000", and then
/// "e2fsck -p /dev/a: end 300000".
QStringList take();

} // namespace ProcessWaits
