#pragma once

#include <QString>

#include "CardStatus.h"

/// How full the card is.
namespace MemoryGauge {

/// The used share of the file system at @p mountPoint in whole percent, rounded up; 0 when none is
/// mounted or it cannot be asked.
int usedPercentage(const QString& mountPoint);

/// The class of a mounted card of which @p percent are used.
MemState memStateOf(int percent);

} // namespace MemoryGauge
