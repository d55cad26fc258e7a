#include "ControllerProbe.h"

#include "sdcard.h"

namespace {

// Naming a private member in an explicit instantiation is allowed, and so the service needs no door
// for its tests.
template <typename Tag, auto Member>
struct Exposed
{
    friend constexpr auto memberOf(Tag /*tag*/) { return Member; }
};

#define EXPOSE(Tag, member)                                                                        \
    struct Tag                                                                                     \
    {};                                                                                            \
    constexpr auto memberOf(Tag);                                                                  \
    template struct Exposed<Tag, &Sdcard::member>

EXPOSE(Machine, mMachine);
EXPOSE(StateTimer, mStateTimer);
EXPOSE(OpenFilesTimer, mOpenFilesTimer);
EXPOSE(MemoryTimer, mMemoryTimer);
EXPOSE(InsertDelayTimer, mInsertDelayTimer);
EXPOSE(EjectPollTimer, mEjectPollTimer);
EXPOSE(FsBirthTime, mFsBirthTime);
EXPOSE(EjectPressCount, mEjectPressCount);
EXPOSE(OpenFilesChecks, mOpenFilesChecks);
EXPOSE(WriteLed, writeLed);

} // namespace

QStateMachine& ControllerProbe::machine(Sdcard& controller)
{
    return controller.*memberOf(Machine{});
}

QTimer& ControllerProbe::stateTimer(Sdcard& controller)
{
    return controller.*memberOf(StateTimer{});
}

QTimer& ControllerProbe::openFilesTimer(Sdcard& controller)
{
    return controller.*memberOf(OpenFilesTimer{});
}

QTimer& ControllerProbe::memoryTimer(Sdcard& controller)
{
    return controller.*memberOf(MemoryTimer{});
}

QTimer& ControllerProbe::insertDelayTimer(Sdcard& controller)
{
    return controller.*memberOf(InsertDelayTimer{});
}

QTimer& ControllerProbe::ejectPollTimer(Sdcard& controller)
{
    return controller.*memberOf(EjectPollTimer{});
}

const QDateTime& ControllerProbe::fsBirthTime(const Sdcard& controller)
{
    return controller.*memberOf(FsBirthTime{});
}

int ControllerProbe::ejectPressCount(const Sdcard& controller)
{
    return controller.*memberOf(EjectPressCount{});
}

unsigned int ControllerProbe::openFilesChecks(const Sdcard& controller)
{
    return controller.*memberOf(OpenFilesChecks{});
}

bool ControllerProbe::writeLed(const Sdcard& controller, const QString& file, const QString& value)
{
    return (controller.*memberOf(WriteLed{}))(file, value);
}
