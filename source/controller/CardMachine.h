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
    /// The memory state in a state of the machine.
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
        Handler onEntry; ///< onEntry and onExit may be null
        Handler onExit;
        Memory memory;
    };
    struct TransitionRow
    {
        QState* from;
        const QObject* sender; ///< null if the source of the signal could not be created
        const char* signal;
        QAbstractState* to;
    };

    /// Adds the states in the order of the table and starts with the first.
    /// @param controller object of the handlers
    void addStates(Sdcard* controller, const std::vector<StateRow>& rows);
    /// Adds the transitions in the order of the table.
    /// @param removal the signal whose transitions @p echo may suppress
    /// @param requests the notifier of requests that stay pending. It is enabled only in states
    /// that wait for requests: otherwise a pending one would keep the event loop busy
    void addTransitions(const std::vector<TransitionRow>& rows, const char* removal,
                        const FormatEcho& echo, QSocketNotifier* requests);

    /// The memory state in the active state.
    Memory memory() const;

private:
    std::vector<StateRow> mStates;
};
