#include "CardMachine.h"

#include <cstring>

#include <QSocketNotifier>

#include "sdcard.h"

void CardMachine::addStates(Sdcard* controller, const std::vector<StateRow>& rows)
{
    mStates = rows;
    for (const StateRow& row : rows) {
        row.state->setObjectName(QString::fromLatin1(row.name));
        addState(row.state);
        if (row.onEntry != nullptr) {
            connect(row.state, &QAbstractState::entered, controller, row.onEntry);
        }
        if (row.onExit != nullptr) {
            connect(row.state, &QAbstractState::exited, controller, row.onExit);
        }
    }
    setInitialState(rows.front().state);
}

void CardMachine::addTransitions(const std::vector<TransitionRow>& rows, const char* removal,
                                 const FormatEcho& echo, QSocketNotifier* requests)
{
    for (const TransitionRow& row : rows) {
        if (row.sender == nullptr) {
            continue;
        }
        auto* const transition = std::strcmp(row.signal, removal) == 0
                                     ? new RemovalTransition(row.sender, row.signal, echo)
                                     : new QSignalTransition(row.sender, row.signal);
        transition->setTargetState(row.to);
        row.from->addTransition(transition);
        if (row.sender == requests) {
            connect(row.from, &QState::entered, requests,
                    [requests] { requests->setEnabled(true); });
            connect(row.from, &QState::exited, requests,
                    [requests] { requests->setEnabled(false); });
        }
    }
}

CardMachine::Memory CardMachine::memory() const
{
    const QSet<QAbstractState*> active = configuration();
    for (const StateRow& row : mStates) {
        if (active.contains(row.state)) {
            return row.memory;
        }
    }
    return Memory::Unchanged;
}
