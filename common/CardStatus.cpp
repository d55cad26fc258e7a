#include "CardStatus.h"

#include <algorithm>
#include <array>

namespace {

template <typename Value>
struct Named
{
    Value value;
    const char* name;
};

constexpr std::array<Named<State>, 9> kStates{{
    {State::Unknown, "unknown"},
    {State::NoCard, "no-card"},
    {State::NotMountable, "not-mountable"},
    {State::Mounted, "mounted"},
    {State::Unmounted, "unmounted"},
    {State::ClosingFiles, "closing-files"},
    {State::Mounting, "mounting"},
    {State::Unmounting, "unmounting"},
    {State::Corrupted, "corrupted"},
}};

constexpr std::array<Named<Transition>, 10> kTransitions{{
    {Transition::None, "none"},
    {Transition::CardInserted, "card-inserted"},
    {Transition::CardRemoved, "card-removed"},
    {Transition::EjectRequested, "eject-requested"},
    {Transition::MountSucceeded, "mount-succeeded"},
    {Transition::MountFailed, "mount-failed"},
    {Transition::CardCorrupt, "card-corrupt"},
    {Transition::UnmountFailed, "unmount-failed"},
    {Transition::FilesClosed, "files-closed"},
    {Transition::TimedOut, "timed-out"},
}};

constexpr std::array<Named<MemState>, 8> kMemStates{{
    {MemState::Unknown, "unknown"},
    {MemState::NoCard, "no-card"},
    {MemState::NotUsable, "not-usable"},
    {MemState::UpTo20, "up-to-20-percent"},
    {MemState::UpTo40, "up-to-40-percent"},
    {MemState::UpTo60, "up-to-60-percent"},
    {MemState::UpTo80, "up-to-80-percent"},
    {MemState::MoreThan80, "more-than-80-percent"},
}};

template <typename Table>
QString nameIn(const Table& table, int value)
{
    const auto* const found = std::find_if(table.begin(), table.end(), [value](const auto& entry) {
        return static_cast<int>(entry.value) == value;
    });
    return found == table.end() ? QString() : QString::fromLatin1(found->name);
}

} // namespace

QString stateName(int value)
{
    return nameIn(kStates, value);
}

QString transitionName(int value)
{
    return nameIn(kTransitions, value);
}

QString memStateName(int value)
{
    return nameIn(kMemStates, value);
}

std::optional<State> stateNamed(const QString& name)
{
    const auto* const found =
        std::find_if(kStates.begin(), kStates.end(), [&name](const Named<State>& entry) {
            return name == QLatin1String(entry.name);
        });
    return found == kStates.end() ? std::nullopt : std::optional<State>(found->value);
}

QStringList stateNames()
{
    QStringList names;
    for (const Named<State>& entry : kStates) {
        names.append(QString::fromLatin1(entry.name));
    }
    return names;
}
