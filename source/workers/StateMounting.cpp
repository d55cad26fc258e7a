#include "StateMounting.h"

#include "ThreadMounting.h"

StateMounting::StateMounting(const ConfigHandler& config)
{
    auto* const worker = new ThreadMounting(config, this);
    setWorker(worker);
    qRegisterMetaType<StateMounting::eTransitionChangeSignalType>(
        "StateMounting::eTransitionChangeSignalType");
    connect(worker, &ThreadMounting::setTransitionChangeSignal, this,
            &StateMounting::setTransitionChangeSignal);
    connect(this, &QState::finished, this, &StateMounting::emitTransitionChangeSignal);
}

StateMounting::~StateMounting() = default;

void StateMounting::setTransitionChangeSignal(eTransitionChangeSignalType signalType)
{
    mPendingSignal = signalType;
}

void StateMounting::emitTransitionChangeSignal()
{
    switch (mPendingSignal) {
    case IgnoreEmit:
        break;
    case StartPrepare:
        Q_EMIT START_PREPARE();
        break;
    case MountSuccess:
        Q_EMIT MOUNT_SUCCESS();
        break;
    case MountFailed:
        Q_EMIT MOUNT_FAILED();
        break;
    case MountCorupt:
        Q_EMIT MOUNT_CORRUPT();
        break;
    }
}
