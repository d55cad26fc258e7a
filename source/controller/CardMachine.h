#pragma once

#include <vector>

#include <QStateMachine>

#include "FormatEcho.h"

class QSocketNotifier;
class Sdcard;

/// The state machine of the card's life, built from a table of states and a table of transitions.
class CardMachine : public QStateMachine
{
public:
    /// What the memory state is in a state of the machine.
    enum class Memory
    {
        NoCard,
        NotUsable,
        Measured,
        Unchanged
    };
    using Handler = void (Sdcard::*)();
    struct StateRow
    {
        QAbstractState* state;
        const char* name;
        Handler onEntry; ///< may be null, as may onExit
        Handler onExit;
        Memory memory;
    };
    struct TransitionRow
    {
        QState* from;
        const QObject* sender; ///< null where the source of the signal could not be created
        const char* signal;
        QAbstractState* to;
    };

    /// Adds the states in the order of the table and starts with the first.
    /// @param controller object of the handlers
    void addStates(Sdcard* controller, const std::vector<StateRow>& rows);
    /// Adds the transitions in the order of the table.
    /// @param removal the signal whose transitions @p echo may suppress
    /// @param requests the notifier of requests that stay pending: it reports only while a state
    /// waits for them, as it would keep the event loop busy otherwise
    void addTransitions(const std::vector<TransitionRow>& rows, const char* removal,
                        const FormatEcho& echo, QSocketNotifier* requests);

    /// What the memory state is in the active state.
    Memory memory() const;

private:
    std::vector<StateRow> mStates;
};
