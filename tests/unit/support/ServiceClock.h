#pragma once

#include <QDateTime>

/// The time of day that QDateTime::currentDateTime() tells the service; other calls tell the
/// system's. Only in test programs that link service_clock.
namespace ServiceClock {

/// Lets the clock stand at @p time.
void stopAt(const QDateTime& time);
/// Lets the clock show the system's time again.
void release();

} // namespace ServiceClock
