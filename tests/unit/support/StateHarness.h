#pragma once

#include <QObject>
#include <QState>
#include <QStateMachine>
#include <QTest>

/// A running machine around one state that can be entered and left.
class StateHarness : public QObject
{
    Q_OBJECT

public:
    /// @param state is destroyed with the harness
    explicit StateHarness(QState* state) : mState(state)
    {
        auto* const idle = new QState(&mMachine);
        mMachine.addState(state);
        idle->addTransition(this, &StateHarness::enter, state);
        state->addTransition(this, &StateHarness::leave, idle);
        mMachine.setInitialState(idle);
        mMachine.start();
        if (!QTest::qWaitFor([idle] { return idle->active(); })) {
            qFatal("the machine does not start");
        }
    }

    bool isActive() const { return mState->active(); }

Q_SIGNALS:
    void enter();
    void leave();

private:
    QStateMachine mMachine;
    QState* mState;
};
