#include "MemoryGauge.h"

#include <array>
#include <cmath>

#include "MountedFileSystem.h"

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

} // namespace

int MemoryGauge::usedPercentage(const QString& mountPoint)
{
    const auto size = MountedFileSystem(mountPoint).size();
    if (!size || size->total == 0) {
        return 0;
    }
    const auto used = static_cast<double>(size->total - size->free);
    return static_cast<int>(std::ceil(used * 100.0 / static_cast<double>(size->total)));
}

MemState MemoryGauge::memStateOf(int percent)
{
    for (const MemStateBound& bound : kMemStateBounds) {
        if (percent <= bound.percent) {
            return bound.memState;
        }
    }
    return MemState::MoreThan80;
}
