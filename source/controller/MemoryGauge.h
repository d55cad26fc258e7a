#pragma once

#include <QString>

#include "CardStatus.h"

/// How full the card is.
namespace MemoryGauge {

/// The used share of the file system at @p mountPoint in whole percent, rounded up; 0 if none is
/// mounted or statvfs() fails.
int usedPercentage(const QString& mountPoint);

/// The class of a mounted card that is @p percent full.
MemState memStateOf(int percent);

} // namespace MemoryGauge
