#include "ControllerProbe.h"

#include "ExposedMember.h"
#include "sdcard.h"

EXPOSE_MEMBER(Machine, Sdcard, mMachine);
EXPOSE_MEMBER(StateTimer, Sdcard, mStateTimer);
EXPOSE_MEMBER(OpenFilesTimer, Sdcard, mOpenFilesTimer);
EXPOSE_MEMBER(MemoryTimer, Sdcard, mMemoryTimer);
EXPOSE_MEMBER(InsertDelayTimer, Sdcard, mInsertDelayTimer);
EXPOSE_MEMBER(EjectPollTimer, Sdcard, mEjectPollTimer);
EXPOSE_MEMBER(FsBirthTime, Sdcard, mFsBirthTime);
EXPOSE_MEMBER(EjectPressCount, Sdcard, mEjectPressCount);
EXPOSE_MEMBER(OpenFilesChecks, Sdcard, mOpenFilesChecks);
EXPOSE_MEMBER(WriteLed, Sdcard, writeLed);

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
