#include "sdcard.h"

#include <cerrno>
#include <csignal>

#include <QFile>
#include <QThread>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "MountedFileSystem.h"
#include "SDCardImpl.h"
#include "SdcardDefs.h"
#include "config.h"

namespace {

const QString kListOpenFilesCmd = QStringLiteral("/usr/sbin/lsof");
constexpr int kListOpenFilesTimeoutMs = 10000;
// Exit code of lsof where it finds nothing.
constexpr int kNothingOpen = 1;

constexpr int kCloseFilesTimeoutMs = 40000;
constexpr int kOpenFilesIntervalMs = 100;

constexpr int kSoftKillPolls = 30;
constexpr unsigned long kSoftKillPollUs = 100000;

QString commandNameOf(const QByteArray& processId)
{
    QFile comm("/proc/" + processId + "/comm");
    if (!comm.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return {};
    }
    return QString::fromUtf8(comm.readAll()).simplified();
}

} // namespace

Sdcard::MountState Sdcard::getMountState(const log4cxx::LoggerPtr& /*logger*/,
                                         const QString& mountPoint)
{
    QFile table(SdcardDefs::kMmcMountTable);
    if (!table.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return MountState::NotMounted;
    }
    const QByteArray wanted = mountPoint.toUtf8();
    for (QByteArray line = table.readLine(); !line.isEmpty(); line = table.readLine()) {
        if (!line.contains(wanted)) {
            continue;
        }
        if (line.contains("rw")) {
            return MountState::ReadWrite;
        }
        return line.contains("ro") ? MountState::ReadOnly : MountState::Unclear;
    }
    return MountState::NotMounted;
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
    // The service's own runs let go first: they would be taken for somebody else's.
    mCapacityWatcher.abandonRuns();
    QByteArray output;
    const int exitCode =
        runCMD(kListOpenFilesCmd, {QStringLiteral("-t"), QStringLiteral("-Q"), mountPoint}, output,
               false, kListOpenFilesTimeoutMs);
    if (exitCode == kNothingOpen) {
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

    for (const QByteArray& piece : output.split('\n')) {
        bool isNumber = false;
        const int processId = piece.toInt(&isNumber);
        // kill(2) would take 0 or a negative number for a whole group of processes.
        if (!isNumber || processId <= 0) {
            continue;
        }
        if (logsProcesses) {
            if (processIds.isEmpty()) {
                TRACK_INFO(logger(), "Processes with open files on " + mountPoint + ":");
            }
            TRACK_INFO(logger(), piece + ": '" + commandNameOf(piece).toUtf8() + "'");
        }
        processIds.append(processId);
        if (logLevel == eLogLevel::Files) {
            logOpenFiles(mountPoint, piece);
        }
    }
    if (logsProcesses) {
        TRACK_INFO(logger(),
                   "Number of processes with open files: " + QByteArray::number(processIds.size()));
    }
    return 0;
}

void Sdcard::logOpenFiles(const QString& mountPoint, const QByteArray& processId)
{
    const QByteArray wanted = mountPoint.toLatin1();
    QByteArray output;
    runCMD(kListOpenFilesCmd,
           {QStringLiteral("-F"), QStringLiteral("-p"), QString::fromLatin1(processId)}, output,
           false, kListOpenFilesTimeoutMs);
    for (const QByteArray& line : output.split('\n')) {
        const int position = line.indexOf(wanted);
        if (position >= 0) {
            TRACK_INFO(logger(), " - open file: " + line.mid(position));
        }
    }
}

void Sdcard::closingFiles()
{
    setBusyState(State::ClosingFiles);
    Q_EMIT mService->EjectPressed();
    QVector<int> processIds;
    if (checkOpenFiles(mConfig.mountPoint(), processIds, eLogLevel::Processes) == 0 &&
        processIds.isEmpty()) {
        Q_EMIT FILES_CLOSED();
        return;
    }
    mStateTimer.start(kCloseFilesTimeoutMs);
    mOpenFilesChecks = 0;
    mOpenFilesTimer.start(kOpenFilesIntervalMs);
}

void Sdcard::checkFiles()
{
    ++mOpenFilesChecks;
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
    if (getMountState(logger(), mountPoint) == MountState::NotMounted) {
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
    if (getMountState(logger(), mountPoint) == MountState::NotMounted) {
        Q_EMIT UMOUNT_SUCCESS();
        return;
    }
    setBusyState(State::Unmounting);
    if (isSystemRebooting()) {
        killProcesses(mountPoint);
    } else {
        terminateProcesses(mountPoint);
    }
    if (umountDevice(mountPoint, true)) {
        setUnmountedState();
    } else {
        Q_EMIT UNMOUNT_FAILED();
    }
}

void Sdcard::terminateProcesses(const QString& mountPoint)
{
    QVector<int> processIds;
    checkOpenFiles(mountPoint, processIds, eLogLevel::Files);
    processIds.removeAll(::getpid());
    for (const int processId : processIds) {
        TRACK_WARN(logger(), "Shutdown softly process " + QByteArray::number(processId) + " !");
        if (::kill(processId, SIGTERM) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR(logger(), "Kill softly failed: " + why);
        }
    }
    for (int poll = 0; poll < kSoftKillPolls; ++poll) {
        QThread::usleep(kSoftKillPollUs);
        processIds.clear();
        checkOpenFiles(mountPoint, processIds, eLogLevel::Silent);
        processIds.removeAll(::getpid());
        if (processIds.isEmpty()) {
            break;
        }
    }
}

void Sdcard::killProcesses(const QString& mountPoint)
{
    TRACK_WARN(logger(), "System is rebooting -> shutdown processes (!)");
    QVector<int> processIds;
    checkOpenFiles(mountPoint, processIds, eLogLevel::Silent);
    processIds.removeAll(::getpid());
    for (const int processId : processIds) {
        if (::kill(processId, SIGKILL) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR(logger(), "Kill hardly failed: " + why);
        }
    }
}
