#include "sdcard.h"

#include <array>
#include <cmath>

#include "MountedFileSystem.h"
#include "SDCardImpl.h"
#include "config.h"

namespace {

struct MemStateBound
{
    int percent; // the highest used share of the class
    MemState memState;
};

constexpr std::array<MemStateBound, 4> kMemStateBounds{{
    {20, MemState::UpTo20},
    {40, MemState::UpTo40},
    {60, MemState::UpTo60},
    {80, MemState::UpTo80},
}};

MemState memStateOf(int percent)
{
    for (const MemStateBound& bound : kMemStateBounds) {
        if (percent <= bound.percent) {
            return bound.memState;
        }
    }
    return MemState::MoreThan80;
}

} // namespace

int Sdcard::usedPercentage(const QString& mountPoint)
{
    const auto size = MountedFileSystem(mountPoint).size();
    if (!size || size->total == 0) {
        return 0;
    }
    const auto used = static_cast<double>(size->total - size->free);
    return static_cast<int>(std::ceil(used * 100.0 / static_cast<double>(size->total)));
}

void Sdcard::checkMemState()
{
    const QSet<QAbstractState*> active = mMachine.configuration();
    if (active.contains(mNoSdCardState) || active.contains(mUnmountingState) ||
        active.contains(mUnmountingForTerminationState)) {
        setMemState(MemState::NoCard);
        mService->setMemLevel(0);
    } else if (active.contains(mNotMoutableState) || active.contains(mCorruptedState)) {
        setMemState(MemState::NotUsable);
        mService->setMemLevel(0);
    } else if (active.contains(mMountedState)) {
        const int percent = usedPercentage(mConfig.mountPoint());
        setMemState(memStateOf(percent));
        mService->setMemLevel(percent);
    }
}
