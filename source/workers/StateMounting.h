#pragma once

#include <QDateTime>

#include "WorkerState.h"

class ConfigHandler;

/// The state in which ThreadMounting inspects, formats, checks and mounts the card. After that the
/// state emits the result.
class StateMounting : public WorkerState
{
    Q_OBJECT

public:
    /// Results of a worker. Each stands for the signal that the state then emits.
    enum eTransitionChangeSignalType
    {
        IgnoreEmit = 0,   ///< none
        StartPrepare = 1, ///< START_PREPARE: mounted just now
        MountSuccess = 2, ///< MOUNT_SUCCESS: was mounted already
        MountFailed = 3,  ///< MOUNT_FAILED
        MountCorupt = 4   ///< MOUNT_CORRUPT: the file system is damaged beyond repair
    };
    Q_ENUM(eTransitionChangeSignalType)

    explicit StateMounting(const ConfigHandler& config);
    StateMounting(const StateMounting&) = delete;
    StateMounting& operator=(const StateMounting&) = delete;
    ~StateMounting() override;

Q_SIGNALS:
    void START_PREPARE();
    void MOUNT_SUCCESS();
    void MOUNT_FAILED();
    void MOUNT_CORRUPT();
    /// A new file system was created on the card at @p birth.
    void newFsBirthDate(const QDateTime& birth);
    /// The worker has started to work on the card.
    void mountingStateActive();

public Q_SLOTS:
    /// Keeps the worker's result until the state ends.
    void setTransitionChangeSignal(eTransitionChangeSignalType signalType);
    /// Emits the signal for the last reported result.
    void emitTransitionChangeSignal();

private:
    eTransitionChangeSignalType mPendingSignal = IgnoreEmit;
};
