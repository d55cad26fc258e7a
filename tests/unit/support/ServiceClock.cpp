#include "ServiceClock.h"

namespace {

QDateTime standsAt;

} // namespace

void ServiceClock::stopAt(const QDateTime& time)
{
    standsAt = time;
}

void ServiceClock::release()
{
    standsAt = QDateTime();
}

// The linker's option --wrap leads the service's calls here; it prescribes the names.
QDateTime realCurrentDateTime() asm("__real__ZN9QDateTime15currentDateTimeEv");
QDateTime currentDateTime() asm("__wrap__ZN9QDateTime15currentDateTimeEv");

QDateTime currentDateTime()
{
    return standsAt.isValid() ? standsAt : realCurrentDateTime();
}
