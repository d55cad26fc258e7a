#include "ThreadMounting.h"

#include <cerrno>

#include <QDir>
#include <QFile>

#include <sys/mount.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "ForeignCard.h"
#include "MountTable.h"
#include "MountedFileSystem.h"
#include "ProgramRunner.h"
#include "SdcardDefs.h"
#include "UnpreparedMark.h"

namespace {

constexpr auto kTrackSource = "StateMounting";

constexpr auto kMountOptions = "data=journal,nodelalloc,journal_checksum";

const QString kCheckCmd = QStringLiteral("e2fsck");
constexpr int kQuickCheckTimeoutMs = 300000;
constexpr int kDeepCheckTimeoutMs = 3600000;
constexpr int kCorrectedBits = ThreadMounting::ErrorsCorrected | ThreadMounting::RebootAdvised;

bool ensureMountPoint(const QString& mountPoint)
{
    return QDir().mkpath(mountPoint);
}

// Leaves errno as mount(2) set it.
bool mountFileSystem(const QString& device, const QString& mountPoint, const QString& fsType,
                     bool remount)
{
    const QByteArray source = device.toUtf8();
    const QByteArray target = mountPoint.toUtf8();
    const QByteArray type = fsType.toUtf8();
    const unsigned long flags = remount ? MS_NOATIME | MS_REMOUNT : MS_NOATIME;
    int result = 0;
    do {
        result =
            ::mount(source.constData(), target.constData(), type.constData(), flags, kMountOptions);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace

ThreadMounting::ThreadMounting(const ConfigHandler& config, QObject* parent)
    : ThreadStateBase(parent), mConfig(config)
{
    setupTrackAndThreadName(*this);
}

ThreadMounting::~ThreadMounting()
{
    // Not only in the base: a run in progress uses this object.
    terminateIfRunning();
}

void ThreadMounting::emitOnState(const std::function<void(StateMounting&)>& emission)
{
    postFromRun([this, emission] {
        auto* const state = qobject_cast<StateMounting*>(parent());
        if (state != nullptr && state->active()) {
            emission(*state);
        }
    });
}

void ThreadMounting::run()
{
    // Copies: a run that is blocked until the service ends outlives the configuration.
    const QString mountPoint = mConfig.mountPoint();
    const QString device = mConfig.devicePath();
    const MountState mountState = mountStateOf(mountPoint);
    if (mountState != MountState::NotMounted && MountedFileSystem(mountPoint).isDeviceGone()) {
        TRACK_ERROR(logger(), "The card that is mounted at '" + mountPoint +
                                  "' is no longer there, a program still uses it");
        Q_EMIT setTransitionChangeSignal(StateMounting::MountFailed);
        return;
    }
    if (mountState == MountState::ReadWrite) {
        Q_EMIT setTransitionChangeSignal(UnpreparedMark::isSet() ? StateMounting::StartPrepare
                                                                 : StateMounting::MountSuccess);
        return;
    }
    if (isStopRequested()) {
        return;
    }
    emitOnState([](StateMounting& state) { Q_EMIT state.mountingStateActive(); });

    const int code = formatForeignCard(TRACK_HERE, logger(), device);
    if (isStopRequested()) {
        return;
    }
    if (code == SdcardDefs::kMmcFormatNotNeeded) {
        TRACK_INFO(logger(), "SD Card Linux Ext4 format is ok");
    } else if (code == SdcardDefs::kMmcFormatCreated) {
        emitOnState([birth = QDateTime::currentDateTime()](StateMounting& state) {
            Q_EMIT state.newFsBirthDate(birth);
        });
        TRACK_INFO(logger(), "SD Card Linux Ext4 format was new initialized");
    } else {
        // Also for an unreadable partition table, with its own code.
        TRACK_ERROR(logger(),
                    "SD Card MMC formatting failed (exit code: " + QByteArray::number(code) + ")");
        Q_EMIT setTransitionChangeSignal(StateMounting::MountFailed);
        return;
    }

    const QString& fsType = QFile::exists(SdcardDefs::kInputSdEjectButton)
                                ? SdcardDefs::kMmcFsTypeSd
                                : SdcardDefs::kMmcFsTypeEmmc;
    bool corrupt = false;
    const bool mounted = mountDevice(device, mountPoint, fsType, corrupt);
    if (isStopRequested()) {
        return;
    }
    if (mounted) {
        Q_EMIT setTransitionChangeSignal(StateMounting::StartPrepare);
    } else {
        Q_EMIT setTransitionChangeSignal(corrupt ? StateMounting::MountCorupt
                                                 : StateMounting::MountFailed);
    }
}

bool ThreadMounting::mountDevice(const QString& device, const QString& mountPoint,
                                 const QString& fsType, bool& corrupt) const
{
    if (!ensureMountPoint(mountPoint)) {
        return false;
    }
    const MountState before = mountStateOf(mountPoint);
    if (before == MountState::ReadWrite) {
        return true;
    }
    if (before == MountState::NotMounted) {
        const SDcardState result = checkAndRepairFS(device);
        if ((result & kCorrectedBits) != 0 && !isInterruptionRequested()) {
            TRACK_INFO(logger(), "Corrected some file system errors on SD Card!");
        }
    }
    if (isStopRequested()) {
        // The card in the slot may have changed since the check.
        removeMountPoint(mountPoint);
        return false;
    }
    bool mounted = false;
    if (before != MountState::Unclear) {
        if (!UnpreparedMark::set()) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_WARN(logger(), "Cannot mark the card as unprepared: " + why);
        }
        mounted = mountFileSystem(device, mountPoint, fsType, before == MountState::ReadOnly);
    }
    if (before == MountState::NotMounted) {
        corrupt = !mounted;
    }
    if (!mounted) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR(logger(), "Mount failed: " + why);
        if (removeMountPoint(mountPoint)) {
            UnpreparedMark::clear();
        }
    } else if (before == MountState::NotMounted && isStopRequested()) {
        unmountAgain(mountPoint);
        return false;
    }
    return mounted;
}

void ThreadMounting::unmountAgain(const QString& mountPoint) const
{
    const int error = unmount(mountPoint);
    if (error != 0 && error != EINVAL) {
        TRACK_WARN(logger(), "Cannot unmount the card that was mounted too late: " +
                                 tavoutil::systemErrorText(error));
        return;
    }
    UnpreparedMark::clear();
    removeMountPoint(mountPoint);
}

ThreadMounting::SDcardState ThreadMounting::checkAndRepairFS(const QString& device) const
{
    const int quickResult = ProgramRunner::run(logger(), kCheckCmd, {QStringLiteral("-p"), device},
                                               false, kQuickCheckTimeoutMs);
    if (quickResult <= ErrorsCorrected || isInterruptionRequested()) {
        return static_cast<SDcardState>(quickResult);
    }
    TRACK_INFO(logger(), "Run deeply file system check");
    const QStringList deepArguments{QStringLiteral("-f"), QStringLiteral("-y"),
                                    QStringLiteral("-v"), QStringLiteral("-c"), device};
    const int deepResult =
        ProgramRunner::run(logger(), kCheckCmd, deepArguments, true, kDeepCheckTimeoutMs);
    if (!isInterruptionRequested()) {
        TRACK_INFO(logger(), "Pass2 check result: " + QByteArray::number(deepResult));
    }
    return static_cast<SDcardState>(deepResult);
}
