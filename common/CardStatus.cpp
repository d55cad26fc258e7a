#include "CardStatus.h"

#include <algorithm>

namespace {

template <typename Table>
QString nameIn(const Table& table, int value)
{
    const auto* const found = std::find_if(table.begin(), table.end(),
                                           [value](const auto& row) { return row.value == value; });
    return found == table.end() ? QString() : QString::fromLatin1(found->word);
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
        std::find_if(kStates.begin(), kStates.end(), [&name](const PublishedValue& row) {
            return name == QLatin1String(row.word);
        });
    return found == kStates.end() ? std::nullopt
                                  : std::optional<State>(static_cast<State>(found->value));
}
