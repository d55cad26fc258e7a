#include "sdcard.h"

#include <vector>

#include <QCoreApplication>

#include <tavoutil/TrackLog.h>

#include "SDCardImpl.h"
#include "StateMounting.h"
#include "StatePreparing.h"
#include "config.h"

namespace {

constexpr int kMemoryIntervalMs = 600000;
constexpr int kEjectPollIntervalMs = 200;
constexpr int kTakeOutTimeoutMs = 20000;

} // namespace

struct Sdcard::TransitionRow
{
    QState* from;
    const QObject* sender;
    const char* signal;
    QAbstractState* to;
};

struct Sdcard::HandlerRow
{
    QAbstractState* state;
    void (Sdcard::*onEntry)();
    void (Sdcard::*onExit)();
};

Sdcard::Sdcard(QDBusConnection& bus, ConfigHandler& config, QObject* parent)
    : QObject(parent), mConfig(config), mCapacityWatcher(config)
{
    initTrack("sdcard");
    TRACK_INFO(logger(), "Checking hardware...");
    checkHardware();
    registerBusObject(bus);

    for (QTimer* const timer : {&mStateTimer, &mOpenFilesTimer, &mInsertDelayTimer}) {
        timer->setSingleShot(true);
        // The default may be off by a second in twenty.
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&mOpenFilesTimer, &QTimer::timeout, this, &Sdcard::checkFiles);
    connect(&mMemoryTimer, &QTimer::timeout, this, &Sdcard::checkMemState);
    connect(&mInsertDelayTimer, &QTimer::timeout, this, &Sdcard::SD_INSERT);
    connect(&mEjectPollTimer, &QTimer::timeout, this, &Sdcard::readInputDevice);
    connect(&mMachine, &QStateMachine::started, this, &Sdcard::checkSDcardPresent);

    registerSignalHandler();
    buildMachine();
    mMachine.start();
}

Sdcard::~Sdcard()
{
    mMachine.stop();
    for (QTimer* const timer :
         {&mStateTimer, &mOpenFilesTimer, &mMemoryTimer, &mInsertDelayTimer, &mEjectPollTimer}) {
        timer->stop();
        timer->disconnect(this);
    }
    mMachine.disconnect(this);
    mService->disconnect(this);
    disconnect();
    delete mMountingState;
    delete mPreparingState;
    unregisterSignalHandler();
}

void Sdcard::registerBusObject(QDBusConnection& bus)
{
    mService = new SDCardImpl(mConfig.mountPoint(), this);
    if (!bus.registerService(SDCardImpl::kServiceName)) {
        TRACK_ERROR(logger(), "Connect to dbus failed");
        return;
    }
    mServiceRegistered =
        bus.registerObject(SDCardImpl::kObjectPath, mService, QDBusConnection::ExportAdaptors);
    connect(mService, &SDCardImpl::CardInserted, this, &Sdcard::ADD_DEVICE);
    connect(mService, &SDCardImpl::CardRemoved, this, &Sdcard::REMOVE_DEVICE);
}

void Sdcard::buildMachine()
{
    mNoSdCardState = new QState;
    mMountingState = new StateMounting(mConfig);
    mPreparingState = new StatePreparing(mConfig);
    mMountedState = new QState;
    mNotMoutableState = new QState;
    mClosingFilesState = new QState;
    mClosingFilesForTerminationState = new QState;
    mUnmountingState = new QState;
    mUnmountingForTerminationState = new QState;
    mForcedUnmountingState = new QState;
    mCorruptedState = new QState;
    mTerminatingState = new QFinalState;

    const std::initializer_list<QAbstractState*> states = {mNoSdCardState,
                                                           mMountingState,
                                                           mPreparingState,
                                                           mMountedState,
                                                           mNotMoutableState,
                                                           mClosingFilesState,
                                                           mClosingFilesForTerminationState,
                                                           mUnmountingState,
                                                           mUnmountingForTerminationState,
                                                           mForcedUnmountingState,
                                                           mCorruptedState,
                                                           mTerminatingState};
    for (QAbstractState* const state : states) {
        mMachine.addState(state);
    }
    mMachine.setInitialState(mNoSdCardState);

    connectTriggers();
    connectHandlers();
    addTransitions();
}

void Sdcard::addTransitions()
{
    const char* const kSignalArrived = SIGNAL(activated(int));
    const char* const kTimeout = SIGNAL(timeout());

    // Missing on purpose: a corrupted card keeps its state until the process ends, so nothing
    // leaves corrupted; and a request to terminate waits until mounting and preparing are done. The
    // signal's byte is never read, so that the notifier is still active then. By it, too, a
    // terminating state is left after its own unmount: UMOUNT_SUCCESS says that nothing was
    // mounted.
    // clang-format off
    const std::vector<TransitionRow> rows = {
        {mNoSdCardState,                   this,            SIGNAL(SD_INSERT()),      mMountingState},
        {mNoSdCardState,                   mSignalNotifier, kSignalArrived,           mTerminatingState},
        {mMountingState,                   mMountingState,  SIGNAL(START_PREPARE()),  mPreparingState},
        {mMountingState,                   mMountingState,  SIGNAL(MOUNT_SUCCESS()),  mMountedState},
        {mMountingState,                   mMountingState,  SIGNAL(MOUNT_CORRUPT()),  mCorruptedState},
        {mMountingState,                   mMountingState,  SIGNAL(MOUNT_FAILED()),   mNotMoutableState},
        {mMountingState,                   this,            SIGNAL(SD_REMOVE()),      mNoSdCardState},
        {mPreparingState,                  mPreparingState, SIGNAL(MOUNT_SUCCESS()),  mMountedState},
        {mPreparingState,                  this,            SIGNAL(SD_REMOVE()),      mNoSdCardState},
        {mNotMoutableState,                this,            SIGNAL(SD_REMOVE()),      mNoSdCardState},
        {mNotMoutableState,                mSignalNotifier, kSignalArrived,           mTerminatingState},
        {mMountedState,                    this,            SIGNAL(SD_EJECT()),       mClosingFilesState},
        {mMountedState,                    this,            SIGNAL(SD_REMOVE()),      mNoSdCardState},
        {mMountedState,                    mSignalNotifier, kSignalArrived,           mClosingFilesForTerminationState},
        {mClosingFilesState,               this,            SIGNAL(SD_REMOVE()),      mNoSdCardState},
        {mClosingFilesState,               this,            SIGNAL(FILES_CLOSED()),   mUnmountingState},
        {mClosingFilesState,               &mStateTimer,    kTimeout,                 mMountedState},
        {mUnmountingState,                 this,            SIGNAL(UMOUNT_SUCCESS()), mNoSdCardState},
        {mUnmountingState,                 this,            SIGNAL(SD_REMOVE()),      mNoSdCardState},
        {mUnmountingState,                 &mStateTimer,    kTimeout,                 mMountingState},
        {mUnmountingState,                 this,            SIGNAL(UNMOUNT_FAILED()), mMountingState},
        {mUnmountingState,                 mSignalNotifier, kSignalArrived,           mTerminatingState},
        {mClosingFilesForTerminationState, this,            SIGNAL(SD_REMOVE()),      mTerminatingState},
        {mClosingFilesForTerminationState, this,            SIGNAL(FILES_CLOSED()),   mUnmountingForTerminationState},
        {mClosingFilesForTerminationState, &mStateTimer,    kTimeout,                 mForcedUnmountingState},
        {mUnmountingForTerminationState,   this,            SIGNAL(UMOUNT_SUCCESS()), mTerminatingState},
        {mUnmountingForTerminationState,   this,            SIGNAL(UNMOUNT_FAILED()), mForcedUnmountingState},
        {mUnmountingForTerminationState,   &mStateTimer,    kTimeout,                 mForcedUnmountingState},
        {mUnmountingForTerminationState,   mSignalNotifier, kSignalArrived,           mTerminatingState},
        {mForcedUnmountingState,           this,            SIGNAL(UNMOUNT_FAILED()), mTerminatingState},
        {mForcedUnmountingState,           mSignalNotifier, kSignalArrived,           mTerminatingState},
    };
    // clang-format on
    for (const TransitionRow& row : rows) {
        // Without the signal bridge there is no notifier.
        if (row.sender != nullptr) {
            row.from->addTransition(row.sender, row.signal, row.to);
        }
    }
}

void Sdcard::connectHandlers()
{
    // The worker states handle their entry and exit themselves.
    // clang-format off
    const std::vector<HandlerRow> rows = {
        {mNoSdCardState,                   &Sdcard::noSdCard,          nullptr},
        {mMountedState,                    &Sdcard::mounted,           &Sdcard::mount_exited},
        {mNotMoutableState,                &Sdcard::notMoutable,       nullptr},
        {mClosingFilesState,               &Sdcard::closingFiles,      &Sdcard::closingFiles_exited},
        {mClosingFilesForTerminationState, &Sdcard::closingFiles,      &Sdcard::closingFiles_exited},
        {mUnmountingState,                 &Sdcard::unmounting,        nullptr},
        {mUnmountingForTerminationState,   &Sdcard::unmounting,        nullptr},
        {mForcedUnmountingState,           &Sdcard::forced_unmounting, nullptr},
        {mCorruptedState,                  &Sdcard::corrupted,         nullptr},
        {mTerminatingState,                &Sdcard::terminating,       nullptr},
    };
    // clang-format on
    for (const HandlerRow& row : rows) {
        connect(row.state, &QAbstractState::entered, this, row.onEntry);
        if (row.onExit != nullptr) {
            connect(row.state, &QAbstractState::exited, this, row.onExit);
        }
    }
}

void Sdcard::connectTriggers()
{
    connect(this, &Sdcard::ADD_DEVICE, this, &Sdcard::addBlockDevice);
    connect(this, &Sdcard::REMOVE_DEVICE, this, &Sdcard::removeBlockDevice);
    connect(this, &Sdcard::SD_INSERT, this, &Sdcard::cardInsertedTriggered);
    connect(this, &Sdcard::SD_REMOVE, this, &Sdcard::cardRemovedTriggered);
    connect(this, &Sdcard::SD_EJECT, this, &Sdcard::cardEjectTriggered);
    connect(this, &Sdcard::MOUNT_SUCCESS, this, &Sdcard::mountSuccessTriggered);
    connect(this, &Sdcard::MOUNT_FAILED, this, &Sdcard::mountFailedTriggered);
    connect(this, &Sdcard::MOUNT_CORRUPT, this, &Sdcard::mountCorruptTriggered);
    connect(this, &Sdcard::UMOUNT_SUCCESS, this, &Sdcard::umountSuccessTriggered);
    connect(this, &Sdcard::UNMOUNT_FAILED, this, &Sdcard::unmountFailedTriggered);
    connect(this, &Sdcard::FILES_CLOSED, this, &Sdcard::filesClosedTriggered);
    connect(&mStateTimer, &QTimer::timeout, this, &Sdcard::timeoutTriggered);
    connect(mMountingState, &StateMounting::newFsBirthDate, this, &Sdcard::setFsBirthDate);
    connect(mMountingState, &StateMounting::mountingStateActive, this, &Sdcard::setMountingState);
}

qint64 Sdcard::getDirSize(const QString& id)
{
    return mConfig.getDirSize(id);
}

qint64 Sdcard::getDirUsed(const QString& id)
{
    return mConfig.getDirUsed(id);
}

QString Sdcard::getDirPath(const QString& id)
{
    return mConfig.getDirPath(id);
}

bool Sdcard::ensureDirSize(const QString& id)
{
    return mCapacityWatcher.ensureDirSize(id);
}

void Sdcard::noSdCard()
{
    setState(State::NoCard);
    mService->setIsMounted(false);
    showPattern(LedPattern::Off);
    setMemState(MemState::NoCard);
}

void Sdcard::setMountingState()
{
    setBusyState(State::Mounting);
}

void Sdcard::mounted()
{
    setState(State::Mounted);
    mService->setIsMounted(true);
    mCapacityWatcher.storageIsReady();
    showPattern(LedPattern::Mounted);
    checkMemState();
    mMemoryTimer.start(kMemoryIntervalMs);
    if (hasEjectButton()) {
        mEjectPressCount = 0;
        mEjectPollTimer.start(kEjectPollIntervalMs);
        TRACK_INFO(logger(), "Eject button timer started");
    } else {
        TRACK_INFO(logger(), "No eject button detected");
    }
    TRACK_INFO(logger(), "SD Card is successfully mounted");
    Q_EMIT mService->CardMounted();
}

void Sdcard::mount_exited()
{
    mMemoryTimer.stop();
    mEjectPollTimer.stop();
}

void Sdcard::notMoutable()
{
    setState(State::NotMountable);
    mService->setIsMounted(false);
    Q_EMIT mService->CardNotMountable();
    showPattern(LedPattern::NotMountable);
}

void Sdcard::corrupted()
{
    setState(State::Corrupted);
    setMemState(MemState::NotUsable);
    showPattern(LedPattern::Busy);
    TRACK_ERROR(logger(), "Corrupted SD Card detected");
}

void Sdcard::terminating()
{
    showPattern(LedPattern::Off);
    QCoreApplication::quit();
}

void Sdcard::setBusyState(State state)
{
    setState(state);
    showPattern(LedPattern::Busy);
}

void Sdcard::setUnmountedState()
{
    setState(State::Unmounted);
    mService->setIsMounted(false);
    Q_EMIT mService->CardUnmounted();
    mService->setMemLevel(0);
    setMemState(MemState::NoCard);
    mCapacityWatcher.storageIsUnmounted();
    showPattern(LedPattern::Unmounted);
    mStateTimer.start(kTakeOutTimeoutMs);
    TRACK_INFO(logger(), "SD Card is successfully unmounted");
}

void Sdcard::setState(State state)
{
    mService->setState(static_cast<int>(state));
}

void Sdcard::setTransition(Transition transition)
{
    mService->setTransition(static_cast<int>(transition));
}

void Sdcard::setMemState(MemState memState)
{
    mService->setMemState(static_cast<int>(memState));
}
