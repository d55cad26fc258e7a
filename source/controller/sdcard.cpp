#include "sdcard.h"

#include <cerrno>
#include <csignal>

#include <QCoreApplication>
#include <QFile>
#include <QThread>

#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "BusRegistration.h"
#include "CardLights.h"
#include "ForeignCard.h"
#include "MemoryGauge.h"
#include "MountedFileSystem.h"
#include "ProgramRunner.h"
#include "SDCardImpl.h"
#include "SdcardDefs.h"
#include "StateMounting.h"
#include "StatePreparing.h"

namespace {

constexpr auto kTrackSource = "sdcard";

using Memory = CardMachine::Memory;

constexpr int kInsertDelayMs = 1000;
constexpr int kMemoryIntervalMs = 600000;
constexpr int kEjectPollIntervalMs = 200;
constexpr int kTakeOutTimeoutMs = 20000;
constexpr int kCloseFilesTimeoutMs = 40000;
constexpr int kOpenFilesIntervalMs = 100;

constexpr int kSoftKillPolls = 30;
constexpr unsigned long kSoftKillPollUs = 100000;

constexpr int kRunlevelTimeoutMs = 10000;
constexpr char kRebootRunlevel = '6';

} // namespace

Sdcard::Sdcard(QDBusConnection& bus, ConfigHandler& config, QObject* parent)
    : QObject(parent), mConfig(config), mCapacityWatcher(config)
{
    initTrack("sdcard");
    TRACK_INFO(logger(), "Checking hardware...");
    checkHardware();
    registerBusObject(bus);
    setUpTimers();
    connect(&mMachine, &QStateMachine::started, this, &Sdcard::checkSDcardPresent);
    registerSignalHandler();
    buildMachine();
    mMachine.start();
}

Sdcard::~Sdcard()
{
    mMachine.stop();
    for (QTimer* const timer : findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly)) {
        timer->stop();
        timer->disconnect(this);
    }
    mMachine.disconnect(this);
    mService->disconnect(this);
    disconnect();
    delete mMountingState;
    delete mPreparingState;
    mTerminationSignals.tearDown();
}

void Sdcard::checkHardware()
{
    if (!mConfig.hasMmcDevice() || QFile::exists(mConfig.devicePath())) {
        return;
    }
    TRACK_INFO(logger(), "SD Card is available but not initialized, check it...");
    const int code = formatForeignCard(TRACK_HERE, logger(), mConfig.devicePath());
    if (code == SdcardDefs::kMmcFormatNotNeeded) {
        TRACK_INFO(logger(), "SD Card Linux Ext4 format is ok");
    } else if (code == SdcardDefs::kMmcFormatCreated) {
        setFsBirthDate(QDateTime::currentDateTime());
        TRACK_INFO(logger(), "SD Card Linux Ext4 format was new initialized");
    }
}

void Sdcard::registerBusObject(QDBusConnection& bus)
{
    mService = new SDCardImpl(mConfig.mountPoint(), this);
    auto* const registration = new BusRegistration(bus, mService, this);
    if (!registration->takeName()) {
        TRACK_ERROR(logger(), "Connect to dbus failed");
        return;
    }
    mServiceRegistered = registration->exportObject();
    connect(registration, &BusRegistration::restored, this, &Sdcard::lookForCardAnew);
    connect(mService, &SDCardImpl::CardInserted, this, &Sdcard::ADD_DEVICE);
    connect(mService, &SDCardImpl::CardRemoved, this, &Sdcard::REMOVE_DEVICE);
}

// While the bus was away, nobody could announce a card or its removal.
void Sdcard::lookForCardAnew()
{
    const bool isKnown = mService->state() != static_cast<int>(State::NoCard);
    if (QFile::exists(mConfig.devicePath()) != isKnown) {
        isKnown ? Q_EMIT REMOVE_DEVICE() : Q_EMIT ADD_DEVICE();
    }
}

void Sdcard::registerSignalHandler()
{
    const QByteArray failure = mTerminationSignals.setUp(&mMachine);
    if (!failure.isEmpty()) {
        TRACK_ERROR(logger(), failure);
    }
}

void Sdcard::setUpTimers()
{
    mStateTimer.setObjectName(QStringLiteral("state timer"));
    mOpenFilesTimer.setObjectName(QStringLiteral("open-files timer"));
    mMemoryTimer.setObjectName(QStringLiteral("memory timer"));
    mInsertDelayTimer.setObjectName(QStringLiteral("insert delay timer"));
    mEjectPollTimer.setObjectName(QStringLiteral("eject poll timer"));
    for (QTimer* const timer : {&mStateTimer, &mOpenFilesTimer, &mInsertDelayTimer}) {
        timer->setSingleShot(true);
        // The default timer type may be off by one second in twenty.
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&mOpenFilesTimer, &QTimer::timeout, this, &Sdcard::checkFiles);
    connect(&mMemoryTimer, &QTimer::timeout, this, &Sdcard::checkMemState);
    connect(&mInsertDelayTimer, &QTimer::timeout, this, &Sdcard::SD_INSERT);
    connect(&mEjectPollTimer, &QTimer::timeout, this, &Sdcard::readInputDevice);
}

void Sdcard::buildMachine()
{
    auto* const noSdCardState = new QState;
    mMountingState = new StateMounting(mConfig);
    mPreparingState = new StatePreparing(mConfig);
    auto* const mountedState = new QState;
    auto* const notMoutableState = new QState;
    auto* const closingFilesState = new QState;
    auto* const closingFilesForTerminationState = new QState;
    auto* const unmountingState = new QState;
    auto* const unmountingForTerminationState = new QState;
    auto* const forcedUnmountingState = new QState;
    auto* const corruptedState = new QState;
    auto* const terminatingState = new QFinalState;

    // Missing on purpose: the worker states handle their entry and exit themselves.
    // clang-format off
    mMachine.addStates(this, {
        {noSdCardState,                   "noSdCard",                   &Sdcard::noSdCard,          nullptr,                      Memory::NoCard},
        {mMountingState,                  "mounting",                   nullptr,                    nullptr,                      Memory::Unchanged},
        {mPreparingState,                 "preparing",                  nullptr,                    nullptr,                      Memory::Unchanged},
        {mountedState,                    "mounted",                    &Sdcard::mounted,           &Sdcard::mount_exited,        Memory::Measured},
        {notMoutableState,                "notMoutable",                &Sdcard::notMoutable,       nullptr,                      Memory::NotUsable},
        {closingFilesState,               "closingFiles",               &Sdcard::closingFiles,      &Sdcard::closingFiles_exited, Memory::Unchanged},
        {closingFilesForTerminationState, "closingFilesForTermination", &Sdcard::closingFiles,      &Sdcard::closingFiles_exited, Memory::Unchanged},
        {unmountingState,                 "unmounting",                 &Sdcard::unmounting,        nullptr,                      Memory::NoCard},
        {unmountingForTerminationState,   "unmountingForTermination",   &Sdcard::unmounting,        nullptr,                      Memory::NoCard},
        {forcedUnmountingState,           "forced_unmounting",          &Sdcard::forced_unmounting, nullptr,                      Memory::Unchanged},
        {corruptedState,                  "corrupted",                  &Sdcard::corrupted,         nullptr,                      Memory::NotUsable},
        {terminatingState,                "terminating",                &Sdcard::terminating,       nullptr,                      Memory::Unchanged},
    });
    // clang-format on
    connectTriggers();

    QSocketNotifier* const notifier = mTerminationSignals.notifier();
    const char* const kSignalArrived = SIGNAL(activated(int));
    const char* const kTimeout = SIGNAL(timeout());
    const char* const kRemoved = SIGNAL(SD_REMOVE());
    // Missing on purpose: a corrupted card keeps its state until the process ends, so nothing
    // leaves corrupted. A request to terminate waits until mounting and preparing are done. A
    // terminating state leaves by the pending request after its own unmount, because UMOUNT_SUCCESS
    // means that nothing was mounted.
    // clang-format off
    mMachine.addTransitions({
        {noSdCardState,                   this,            SIGNAL(SD_INSERT()),      mMountingState},
        {noSdCardState,                   notifier,        kSignalArrived,           terminatingState},
        {mMountingState,                  mMountingState,  SIGNAL(START_PREPARE()),  mPreparingState},
        {mMountingState,                  mMountingState,  SIGNAL(MOUNT_SUCCESS()),  mountedState},
        {mMountingState,                  mMountingState,  SIGNAL(MOUNT_CORRUPT()),  corruptedState},
        {mMountingState,                  mMountingState,  SIGNAL(MOUNT_FAILED()),   notMoutableState},
        {mMountingState,                  this,            kRemoved,                 noSdCardState},
        {mPreparingState,                 mPreparingState, SIGNAL(MOUNT_SUCCESS()),  mountedState},
        {mPreparingState,                 this,            kRemoved,                 noSdCardState},
        {notMoutableState,                this,            kRemoved,                 noSdCardState},
        {notMoutableState,                notifier,        kSignalArrived,           terminatingState},
        {mountedState,                    this,            SIGNAL(SD_EJECT()),       closingFilesState},
        {mountedState,                    this,            kRemoved,                 noSdCardState},
        {mountedState,                    notifier,        kSignalArrived,           closingFilesForTerminationState},
        {closingFilesState,               this,            kRemoved,                 noSdCardState},
        {closingFilesState,               this,            SIGNAL(FILES_CLOSED()),   unmountingState},
        {closingFilesState,               &mStateTimer,    kTimeout,                 mountedState},
        {unmountingState,                 this,            SIGNAL(UMOUNT_SUCCESS()), noSdCardState},
        {unmountingState,                 this,            kRemoved,                 noSdCardState},
        {unmountingState,                 &mStateTimer,    kTimeout,                 mMountingState},
        {unmountingState,                 this,            SIGNAL(UNMOUNT_FAILED()), mMountingState},
        {unmountingState,                 notifier,        kSignalArrived,           terminatingState},
        {closingFilesForTerminationState, this,            kRemoved,                 terminatingState},
        {closingFilesForTerminationState, this,            SIGNAL(FILES_CLOSED()),   unmountingForTerminationState},
        {closingFilesForTerminationState, &mStateTimer,    kTimeout,                 forcedUnmountingState},
        {unmountingForTerminationState,   this,            SIGNAL(UMOUNT_SUCCESS()), terminatingState},
        {unmountingForTerminationState,   this,            SIGNAL(UNMOUNT_FAILED()), forcedUnmountingState},
        {unmountingForTerminationState,   &mStateTimer,    kTimeout,                 forcedUnmountingState},
        {unmountingForTerminationState,   notifier,        kSignalArrived,           terminatingState},
        {forcedUnmountingState,           this,            SIGNAL(UNMOUNT_FAILED()), terminatingState},
        {forcedUnmountingState,           notifier,        kSignalArrived,           terminatingState},
    }, kRemoved, mFormatEcho, notifier);
    // clang-format on
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

// Worker threads pass their own logger, by value.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int Sdcard::runCMD(log4cxx::LoggerPtr logger, const QString& program, const QStringList& arguments,
                   bool verbose, int timeoutMs)
{
    return ProgramRunner::run(logger, program, arguments, verbose, timeoutMs);
}

int Sdcard::runCMD(const QString& program, const QStringList& arguments, QByteArray& output,
                   bool verbose, int timeoutMs)
{
    return ProgramRunner::run(this, logger(), program, arguments, output, verbose, timeoutMs);
}

MountState Sdcard::getMountState(const log4cxx::LoggerPtr& /*logger*/, const QString& mountPoint)
{
    return mountStateOf(mountPoint);
}

void Sdcard::checkMemState()
{
    const Memory memory = mMachine.memory();
    if (memory == Memory::Unchanged) {
        return;
    }
    const int percent =
        memory == Memory::Measured ? MemoryGauge::usedPercentage(mConfig.mountPoint()) : 0;
    mService->setMemState(memory == Memory::NoCard      ? MemState::NoCard
                          : memory == Memory::NotUsable ? MemState::NotUsable
                                                        : MemoryGauge::memStateOf(percent));
    mService->setMemLevel(percent);
}

void Sdcard::checkSDcardPresent()
{
    if (QFile::exists(mConfig.devicePath())) {
        TRACK_INFO(logger(), "SD Card is already present");
        Q_EMIT SD_INSERT();
    }
}

void Sdcard::readInputDevice()
{
    if (mEjectButton.read()) {
        Q_EMIT SD_EJECT();
    }
}

bool Sdcard::isSystemRebooting()
{
    QByteArray output;
    runCMD(QStringLiteral("runlevel"), {}, output, false, kRunlevelTimeoutMs);
    return output.contains(kRebootRunlevel);
}

void Sdcard::addBlockDevice()
{
    mInsertDelayTimer.start(kInsertDelayMs);
}

void Sdcard::removeBlockDevice()
{
    mInsertDelayTimer.stop();
    Q_EMIT SD_REMOVE();
}

void Sdcard::cardInsertedTriggered()
{
    if (isSystemRebooting()) {
        TRACK_ERROR(logger(), "Ignoring SD Card insert event because of System is rebooting");
        return;
    }
    mService->setTransition(Transition::CardInserted);
}

void Sdcard::cardRemovedTriggered()
{
    if (mFormatEcho.takeRemoval()) {
        return;
    }
    mStateTimer.stop();
    mService->setTransition(Transition::CardRemoved);
    const QString& mountPoint = mConfig.mountPoint();
    if (mountStateOf(mountPoint) == MountState::ReadWrite) {
        TRACK_INFO(logger(), "Force unmount device (if not already)");
        mCapacityWatcher.abandonRuns();
        umountDevice(mountPoint, true);
    }
    if (MountedFileSystem(mountPoint).isMounted()) {
        mCapacityWatcher.resumeRuns();
    } else {
        // The next card has other limits.
        mCapacityWatcher.storageIsUnmounted();
    }
}

void Sdcard::cardEjectTriggered()
{
    mService->setTransition(Transition::EjectRequested);
    mFormatEcho.setBirth(QDateTime());
    TRACK_INFO(logger(), "SD Card eject trigger received");
}

void Sdcard::mountSuccessTriggered()
{
    mService->setTransition(Transition::MountSucceeded);
}

void Sdcard::mountFailedTriggered()
{
    mService->setTransition(Transition::MountFailed);
    Q_EMIT mService->CardNotMountable();
}

void Sdcard::mountCorruptTriggered()
{
    mService->setTransition(Transition::CardCorrupt);
    Q_EMIT mService->CardCorrupt();
}

void Sdcard::unmountFailedTriggered()
{
    mService->setTransition(Transition::UnmountFailed);
}

void Sdcard::filesClosedTriggered()
{
    mStateTimer.stop();
    mService->setTransition(Transition::FilesClosed);
}

void Sdcard::timeoutTriggered()
{
    mService->setTransition(Transition::TimedOut);
    mStateTimer.stop();
}

void Sdcard::noSdCard()
{
    mService->setState(State::NoCard);
    mService->setIsMounted(false);
    CardLights::show(CardLights::Pattern::Off);
    mService->setMemState(MemState::NoCard);
}

void Sdcard::mounted()
{
    mService->setState(State::Mounted);
    mService->setIsMounted(true);
    mCapacityWatcher.storageIsReady();
    CardLights::show(CardLights::Pattern::Mounted);
    checkMemState();
    mMemoryTimer.start(kMemoryIntervalMs);
    if (EjectButton::exists()) {
        mEjectButton.reset();
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
    mService->setState(State::NotMountable);
    mService->setIsMounted(false);
    Q_EMIT mService->CardNotMountable();
    CardLights::show(CardLights::Pattern::NotMountable);
}

void Sdcard::corrupted()
{
    mService->setState(State::Corrupted);
    mService->setMemState(MemState::NotUsable);
    CardLights::show(CardLights::Pattern::Busy);
    TRACK_ERROR(logger(), "Corrupted SD Card detected");
}

void Sdcard::terminating()
{
    CardLights::show(CardLights::Pattern::Off);
    QCoreApplication::quit();
}

void Sdcard::setBusyState(State state)
{
    mService->setState(state);
    CardLights::show(CardLights::Pattern::Busy);
}

void Sdcard::setUnmountedState()
{
    mService->setState(State::Unmounted);
    mService->setIsMounted(false);
    Q_EMIT mService->CardUnmounted();
    mService->setMemLevel(0);
    mService->setMemState(MemState::NoCard);
    mCapacityWatcher.storageIsUnmounted();
    CardLights::show(CardLights::Pattern::Unmounted);
    mStateTimer.start(kTakeOutTimeoutMs);
    TRACK_INFO(logger(), "SD Card is successfully unmounted");
}

bool Sdcard::umountDevice(const QString& path, bool /*force*/)
{
    const int error = unmount(path);
    if (error != 0) {
        TRACK_ERROR(logger(),
                    "Umount failed: error code '" + tavoutil::systemErrorText(error) + "'");
        return false;
    }
    return removeMountPoint(path);
}

int Sdcard::checkOpenFiles(const QString& mountPoint, QVector<int>& processIds,
                           const eLogLevel& logLevel)
{
    const bool logsProcesses = logLevel != eLogLevel::Silent;
    QList<QByteArray> found;
    const int exitCode = mOpenFiles.findProcesses(mountPoint, found);
    const QByteArray code = QByteArray::number(exitCode);
    if (exitCode == OpenFiles::kNothingFound) {
        if (logsProcesses) {
            TRACK_ERROR(logger(), "Cannot get number of processes with open files, 'lsof' utility "
                                  "failed with exit code " +
                                      code);
        }
        return 0;
    }
    if (exitCode != 0) {
        TRACK_ERROR(logger(), "Invoke of 'lsof' utility failed with exit code " + code);
        return -1;
    }
    for (const QByteArray& processId : found) {
        if (logsProcesses) {
            if (processIds.isEmpty()) {
                TRACK_INFO(logger(), "Processes with open files on " + mountPoint + ":");
            }
            TRACK_INFO(logger(), processId + ": '" + OpenFiles::commandName(processId) + "'");
        }
        processIds.append(processId.toInt());
        if (logLevel == eLogLevel::Files) {
            for (const QByteArray& file : mOpenFiles.filesOf(processId, mountPoint)) {
                TRACK_INFO(logger(), " - open file: " + file);
            }
        }
    }
    if (logsProcesses) {
        TRACK_INFO(logger(),
                   "Number of processes with open files: " + QByteArray::number(processIds.size()));
    }
    return 0;
}

bool Sdcard::areFilesClosed(eLogLevel logLevel)
{
    QVector<int> processIds;
    return checkOpenFiles(mConfig.mountPoint(), processIds, logLevel) == 0 && processIds.isEmpty();
}

void Sdcard::closingFiles()
{
    setBusyState(State::ClosingFiles);
    Q_EMIT mService->EjectPressed();
    // End the service's own runs first: lsof would report them as foreign open files.
    mCapacityWatcher.abandonRuns();
    if (areFilesClosed(eLogLevel::Processes)) {
        Q_EMIT FILES_CLOSED();
        return;
    }
    mStateTimer.start(kCloseFilesTimeoutMs);
    mOpenFilesTimer.start(kOpenFilesIntervalMs);
}

void Sdcard::checkFiles()
{
    if (!QFile::exists(mConfig.mountPoint()) || areFilesClosed(eLogLevel::Silent)) {
        Q_EMIT FILES_CLOSED();
    } else {
        mOpenFilesTimer.start(kOpenFilesIntervalMs);
    }
}

bool Sdcard::beginUnmounting()
{
    if (mountStateOf(mConfig.mountPoint()) == MountState::NotMounted) {
        Q_EMIT UMOUNT_SUCCESS();
        return false;
    }
    setBusyState(State::Unmounting);
    return true;
}

void Sdcard::finishUnmounting(bool force)
{
    if (umountDevice(mConfig.mountPoint(), force)) {
        setUnmountedState();
    } else {
        Q_EMIT UNMOUNT_FAILED();
    }
}

void Sdcard::unmounting()
{
    if (beginUnmounting()) {
        finishUnmounting(false);
    }
}

void Sdcard::forced_unmounting()
{
    if (!beginUnmounting()) {
        return;
    }
    const bool isRebooting = isSystemRebooting();
    if (isRebooting) {
        TRACK_WARN(logger(), "System is rebooting -> shutdown processes (!)");
    }
    QVector<int> processIds;
    // Never signals or awaits the service itself.
    const auto findOthers = [&](eLogLevel logLevel) {
        processIds.clear();
        checkOpenFiles(mConfig.mountPoint(), processIds, logLevel);
        processIds.removeAll(::getpid());
    };
    findOthers(isRebooting ? eLogLevel::Silent : eLogLevel::Files);
    for (const int processId : processIds) {
        if (!isRebooting) {
            TRACK_WARN(logger(), "Shutdown softly process " + QByteArray::number(processId) + " !");
        }
        if (::kill(processId, isRebooting ? SIGKILL : SIGTERM) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR(logger(),
                        (isRebooting ? "Kill hardly failed: " : "Kill softly failed: ") + why);
        }
    }
    bool isWaiting = !isRebooting;
    for (int poll = 0; isWaiting && poll < kSoftKillPolls; ++poll) {
        QThread::usleep(kSoftKillPollUs);
        findOthers(eLogLevel::Silent);
        isWaiting = !processIds.isEmpty();
    }
    finishUnmounting(true);
}
