#include "sdcard.h"

#include <cerrno>
#include <csignal>

#include <QCoreApplication>
#include <QFile>
#include <QThread>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "BusNames.h"
#include "CardLights.h"
#include "MemoryGauge.h"
#include "MountedFileSystem.h"
#include "ProgramRunner.h"
#include "SDCardImpl.h"
#include "SdcardDefs.h"
#include "StateMounting.h"
#include "StatePreparing.h"
#include "config.h"
#include "fdisk.h"

namespace {

constexpr auto kTrackSource = "sdcard";

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
    const QByteArray failure = mTerminationSignals.setUp(&mMachine);
    if (!failure.isEmpty()) {
        TRACK_ERROR(logger(), failure);
    }
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
    mTerminationSignals.tearDown();
}

void Sdcard::checkHardware()
{
    if (!mConfig.hasMmcDevice() || QFile::exists(mConfig.devicePath())) {
        return;
    }
    TRACK_INFO(logger(), "SD Card is available but not initialized, check it...");
    int linuxPartitions = 0;
    int otherPartitions = 0;
    if (FDisk::getNumberOfPartitions(logger(), mConfig.devicePath().toStdString(), linuxPartitions,
                                     otherPartitions) != 0) {
        return;
    }
    if (linuxPartitions == 1 && otherPartitions == 0) {
        TRACK_INFO(logger(), "SD Card Linux Ext4 format is ok");
        return;
    }
    TRACK_INFO(logger(), "New SD Card detected");
    const int code = ProgramRunner::run(logger(), SdcardDefs::kMmcFormatCmd, {}, true,
                                        SdcardDefs::kMmcFormatTimeoutMs);
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
    if (!bus.registerService(BusNames::kService)) {
        TRACK_ERROR(logger(), "Connect to dbus failed");
        return;
    }
    mServiceRegistered =
        bus.registerObject(BusNames::kCardObject, mService, QDBusConnection::ExportAdaptors);
    connect(mService, &SDCardImpl::CardInserted, this, &Sdcard::ADD_DEVICE);
    connect(mService, &SDCardImpl::CardRemoved, this, &Sdcard::REMOVE_DEVICE);
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
        // The default may be off by a second in twenty.
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&mOpenFilesTimer, &QTimer::timeout, this, &Sdcard::checkFiles);
    connect(&mMemoryTimer, &QTimer::timeout, this, &Sdcard::checkMemState);
    connect(&mInsertDelayTimer, &QTimer::timeout, this, &Sdcard::SD_INSERT);
    connect(&mEjectPollTimer, &QTimer::timeout, this, &Sdcard::readInputDevice);
}

void Sdcard::buildMachine()
{
    // Missing on purpose: the worker states handle their entry and exit themselves.
    // clang-format off
    mStates = {
        {mNoSdCardState = new QState,                   "noSdCard",                   &Sdcard::noSdCard,          nullptr,                      Memory::NoCard},
        {mMountingState = new StateMounting(mConfig),   "mounting",                   nullptr,                    nullptr,                      Memory::Unchanged},
        {mPreparingState = new StatePreparing(mConfig), "preparing",                  nullptr,                    nullptr,                      Memory::Unchanged},
        {mMountedState = new QState,                    "mounted",                    &Sdcard::mounted,           &Sdcard::mount_exited,        Memory::Measured},
        {mNotMoutableState = new QState,                "notMoutable",                &Sdcard::notMoutable,       nullptr,                      Memory::NotUsable},
        {mClosingFilesState = new QState,               "closingFiles",               &Sdcard::closingFiles,      &Sdcard::closingFiles_exited, Memory::Unchanged},
        {mClosingFilesForTerminationState = new QState, "closingFilesForTermination", &Sdcard::closingFiles,      &Sdcard::closingFiles_exited, Memory::Unchanged},
        {mUnmountingState = new QState,                 "unmounting",                 &Sdcard::unmounting,        nullptr,                      Memory::NoCard},
        {mUnmountingForTerminationState = new QState,   "unmountingForTermination",   &Sdcard::unmounting,        nullptr,                      Memory::NoCard},
        {mForcedUnmountingState = new QState,           "forced_unmounting",          &Sdcard::forced_unmounting, nullptr,                      Memory::Unchanged},
        {mCorruptedState = new QState,                  "corrupted",                  &Sdcard::corrupted,         nullptr,                      Memory::NotUsable},
        {mTerminatingState = new QFinalState,           "terminating",                &Sdcard::terminating,       nullptr,                      Memory::Unchanged},
    };
    // clang-format on
    for (const StateRow& row : mStates) {
        row.state->setObjectName(QString::fromLatin1(row.name));
        mMachine.addState(row.state);
    }
    mMachine.setInitialState(mNoSdCardState);

    connectTriggers();
    for (const StateRow& row : mStates) {
        if (row.onEntry != nullptr) {
            connect(row.state, &QAbstractState::entered, this, row.onEntry);
        }
        if (row.onExit != nullptr) {
            connect(row.state, &QAbstractState::exited, this, row.onExit);
        }
    }
    addTransitions();
}

void Sdcard::addTransitions()
{
    QSocketNotifier* const notifier = mTerminationSignals.notifier();
    const char* const kSignalArrived = SIGNAL(activated(int));
    const char* const kTimeout = SIGNAL(timeout());
    const char* const kRemoved = SIGNAL(SD_REMOVE());

    // Missing on purpose: a corrupted card keeps its state until the process ends, so nothing
    // leaves corrupted; and a request to terminate waits until mounting and preparing are done. A
    // terminating state leaves by the pending request after its own unmount, as UMOUNT_SUCCESS says
    // that nothing was mounted.
    // clang-format off
    const std::vector<TransitionRow> rows = {
        {mNoSdCardState,                   this,            SIGNAL(SD_INSERT()),      mMountingState},
        {mNoSdCardState,                   notifier,        kSignalArrived,           mTerminatingState},
        {mMountingState,                   mMountingState,  SIGNAL(START_PREPARE()),  mPreparingState},
        {mMountingState,                   mMountingState,  SIGNAL(MOUNT_SUCCESS()),  mMountedState},
        {mMountingState,                   mMountingState,  SIGNAL(MOUNT_CORRUPT()),  mCorruptedState},
        {mMountingState,                   mMountingState,  SIGNAL(MOUNT_FAILED()),   mNotMoutableState},
        {mMountingState,                   this,            kRemoved,                 mNoSdCardState},
        {mPreparingState,                  mPreparingState, SIGNAL(MOUNT_SUCCESS()),  mMountedState},
        {mPreparingState,                  this,            kRemoved,                 mNoSdCardState},
        {mNotMoutableState,                this,            kRemoved,                 mNoSdCardState},
        {mNotMoutableState,                notifier,        kSignalArrived,           mTerminatingState},
        {mMountedState,                    this,            SIGNAL(SD_EJECT()),       mClosingFilesState},
        {mMountedState,                    this,            kRemoved,                 mNoSdCardState},
        {mMountedState,                    notifier,        kSignalArrived,           mClosingFilesForTerminationState},
        {mClosingFilesState,               this,            kRemoved,                 mNoSdCardState},
        {mClosingFilesState,               this,            SIGNAL(FILES_CLOSED()),   mUnmountingState},
        {mClosingFilesState,               &mStateTimer,    kTimeout,                 mMountedState},
        {mUnmountingState,                 this,            SIGNAL(UMOUNT_SUCCESS()), mNoSdCardState},
        {mUnmountingState,                 this,            kRemoved,                 mNoSdCardState},
        {mUnmountingState,                 &mStateTimer,    kTimeout,                 mMountingState},
        {mUnmountingState,                 this,            SIGNAL(UNMOUNT_FAILED()), mMountingState},
        {mUnmountingState,                 notifier,        kSignalArrived,           mTerminatingState},
        {mClosingFilesForTerminationState, this,            kRemoved,                 mTerminatingState},
        {mClosingFilesForTerminationState, this,            SIGNAL(FILES_CLOSED()),   mUnmountingForTerminationState},
        {mClosingFilesForTerminationState, &mStateTimer,    kTimeout,                 mForcedUnmountingState},
        {mUnmountingForTerminationState,   this,            SIGNAL(UMOUNT_SUCCESS()), mTerminatingState},
        {mUnmountingForTerminationState,   this,            SIGNAL(UNMOUNT_FAILED()), mForcedUnmountingState},
        {mUnmountingForTerminationState,   &mStateTimer,    kTimeout,                 mForcedUnmountingState},
        {mUnmountingForTerminationState,   notifier,        kSignalArrived,           mTerminatingState},
        {mForcedUnmountingState,           this,            SIGNAL(UNMOUNT_FAILED()), mTerminatingState},
        {mForcedUnmountingState,           notifier,        kSignalArrived,           mTerminatingState},
    };
    // clang-format on
    for (const TransitionRow& row : rows) {
        // Without the signal bridge there is no notifier.
        if (row.sender == nullptr) {
            continue;
        }
        auto* const transition = row.signal == kRemoved
                                     ? new RemovalTransition(row.sender, row.signal, mFormatEcho)
                                     : new QSignalTransition(row.sender, row.signal);
        transition->setTargetState(row.to);
        row.from->addTransition(transition);
        if (row.sender == notifier) {
            // A pending request would keep the event loop busy where no transition waits for it.
            connect(row.from, &QState::entered, notifier,
                    [notifier] { notifier->setEnabled(true); });
            connect(row.from, &QState::exited, notifier,
                    [notifier] { notifier->setEnabled(false); });
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

// Worker threads hand over their own logger, by value.
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

int Sdcard::usedPercentage(const QString& mountPoint)
{
    return MemoryGauge::usedPercentage(mountPoint);
}

void Sdcard::checkMemState()
{
    const QSet<QAbstractState*> active = mMachine.configuration();
    for (const StateRow& row : mStates) {
        if (!active.contains(row.state) || row.memory == Memory::Unchanged) {
            continue;
        }
        if (row.memory == Memory::Measured) {
            const int percent = usedPercentage(mConfig.mountPoint());
            setMemState(MemoryGauge::memStateOf(percent));
            mService->setMemLevel(percent);
        } else {
            setMemState(row.memory == Memory::NoCard ? MemState::NoCard : MemState::NotUsable);
            mService->setMemLevel(0);
        }
    }
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
    setTransition(Transition::CardInserted);
}

void Sdcard::cardRemovedTriggered()
{
    if (mFormatEcho.takeRemoval()) {
        return;
    }
    mStateTimer.stop();
    setTransition(Transition::CardRemoved);
    mCapacityWatcher.abandonRuns();
    const QString& mountPoint = mConfig.mountPoint();
    if (mountStateOf(mountPoint) == MountState::ReadWrite) {
        TRACK_INFO(logger(), "Force unmount device (if not already)");
        umountDevice(mountPoint, true);
    }
    if (!MountedFileSystem(mountPoint).isMounted()) {
        // Its limits are not those of the next card.
        mCapacityWatcher.storageIsUnmounted();
    }
}

void Sdcard::cardEjectTriggered()
{
    setTransition(Transition::EjectRequested);
    mFormatEcho.setBirth(QDateTime());
    TRACK_INFO(logger(), "SD Card eject trigger received");
}

void Sdcard::mountSuccessTriggered()
{
    setTransition(Transition::MountSucceeded);
}

void Sdcard::mountFailedTriggered()
{
    setTransition(Transition::MountFailed);
    Q_EMIT mService->CardNotMountable();
}

void Sdcard::mountCorruptTriggered()
{
    setTransition(Transition::CardCorrupt);
    Q_EMIT mService->CardCorrupt();
}

void Sdcard::umountSuccessTriggered() {}

void Sdcard::unmountFailedTriggered()
{
    setTransition(Transition::UnmountFailed);
}

void Sdcard::filesClosedTriggered()
{
    mStateTimer.stop();
    setTransition(Transition::FilesClosed);
}

void Sdcard::timeoutTriggered()
{
    setTransition(Transition::TimedOut);
    mStateTimer.stop();
}

void Sdcard::setFsBirthDate(const QDateTime& birth)
{
    mFormatEcho.setBirth(birth);
}

void Sdcard::noSdCard()
{
    setState(State::NoCard);
    mService->setIsMounted(false);
    CardLights::show(CardLights::Pattern::Off);
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
    setState(State::NotMountable);
    mService->setIsMounted(false);
    Q_EMIT mService->CardNotMountable();
    CardLights::show(CardLights::Pattern::NotMountable);
}

void Sdcard::corrupted()
{
    setState(State::Corrupted);
    setMemState(MemState::NotUsable);
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
    setState(state);
    CardLights::show(CardLights::Pattern::Busy);
}

void Sdcard::setUnmountedState()
{
    setState(State::Unmounted);
    mService->setIsMounted(false);
    Q_EMIT mService->CardUnmounted();
    mService->setMemLevel(0);
    setMemState(MemState::NoCard);
    mCapacityWatcher.storageIsUnmounted();
    CardLights::show(CardLights::Pattern::Unmounted);
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

bool Sdcard::umountDevice(const QString& path, bool /*force*/)
{
    const QByteArray target = path.toUtf8();
    int result = 0;
    do {
        result = ::umount2(target.constData(), 0);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR(logger(), "Umount failed: error code '" + why + "'");
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
    if (exitCode == OpenFiles::kNothingFound) {
        if (logsProcesses) {
            TRACK_ERROR(logger(), "Cannot get number of processes with open files, 'lsof' utility "
                                  "failed with exit code " +
                                      QByteArray::number(exitCode));
        }
        return 0;
    }
    if (exitCode != 0) {
        TRACK_ERROR(logger(), "Invoke of 'lsof' utility failed with exit code " +
                                  QByteArray::number(exitCode));
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

void Sdcard::closingFiles()
{
    setBusyState(State::ClosingFiles);
    Q_EMIT mService->EjectPressed();
    // The service's own runs let go first: they would be taken for somebody else's.
    mCapacityWatcher.abandonRuns();
    QVector<int> processIds;
    if (checkOpenFiles(mConfig.mountPoint(), processIds, eLogLevel::Processes) == 0 &&
        processIds.isEmpty()) {
        Q_EMIT FILES_CLOSED();
        return;
    }
    mStateTimer.start(kCloseFilesTimeoutMs);
    mOpenFilesTimer.start(kOpenFilesIntervalMs);
}

void Sdcard::checkFiles()
{
    const QString& mountPoint = mConfig.mountPoint();
    struct stat status = {};
    if (::stat(mountPoint.toUtf8().constData(), &status) != 0) {
        Q_EMIT FILES_CLOSED();
        return;
    }
    QVector<int> processIds;
    if (checkOpenFiles(mountPoint, processIds, eLogLevel::Silent) == 0 && processIds.isEmpty()) {
        Q_EMIT FILES_CLOSED();
    } else {
        mOpenFilesTimer.start(kOpenFilesIntervalMs);
    }
}

void Sdcard::closingFiles_exited()
{
    mOpenFilesTimer.stop();
}

void Sdcard::unmounting()
{
    const QString& mountPoint = mConfig.mountPoint();
    if (mountStateOf(mountPoint) == MountState::NotMounted) {
        Q_EMIT UMOUNT_SUCCESS();
        return;
    }
    setBusyState(State::Unmounting);
    if (umountDevice(mountPoint, false)) {
        setUnmountedState();
    } else {
        Q_EMIT UNMOUNT_FAILED();
    }
}

void Sdcard::forced_unmounting()
{
    const QString& mountPoint = mConfig.mountPoint();
    if (mountStateOf(mountPoint) == MountState::NotMounted) {
        Q_EMIT UMOUNT_SUCCESS();
        return;
    }
    setBusyState(State::Unmounting);
    const bool isRebooting = isSystemRebooting();
    if (isRebooting) {
        TRACK_WARN(logger(), "System is rebooting -> shutdown processes (!)");
    }
    QVector<int> processIds;
    // The service itself is spared, and so is the wait for it.
    const auto findOthers = [&](eLogLevel logLevel) {
        processIds.clear();
        checkOpenFiles(mountPoint, processIds, logLevel);
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
    for (int poll = 0; !isRebooting && poll < kSoftKillPolls; ++poll) {
        QThread::usleep(kSoftKillPollUs);
        findOthers(eLogLevel::Silent);
        if (processIds.isEmpty()) {
            break;
        }
    }
    if (umountDevice(mountPoint, true)) {
        setUnmountedState();
    } else {
        Q_EMIT UNMOUNT_FAILED();
    }
}
