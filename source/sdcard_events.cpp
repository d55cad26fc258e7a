#include "sdcard.h"

#include <cerrno>

#include <QFile>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

#include "SDCardImpl.h"
#include "SdcardDefs.h"
#include "config.h"

namespace {

constexpr int kInsertDelayMs = 1000;
constexpr int kEjectPressReadings = 25;
constexpr int kRunlevelTimeoutMs = 10000;
constexpr char kRebootRunlevel = '6';

// A removal this long after a format, in milliseconds, is the echo of the format.
constexpr qint64 kFormatEchoFirstMs = 1;
constexpr qint64 kFormatEchoLastMs = 2999;

} // namespace

std::array<int, 2> Sdcard::mSignalFd = {-1, -1};

void Sdcard::registerSignalHandler()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, mSignalFd.data()) != 0) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR(logger(), "Can't create socket pair (" + why + ")");
        return;
    }
    // Nobody reads the socket: once it is full, a blocking write would never return.
    // And no tool that is started may inherit it.
    for (const int fd : mSignalFd) {
        ::fcntl(fd, F_SETFL, O_NONBLOCK);
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    mSignalNotifier = new QSocketNotifier(mSignalFd[1], QSocketNotifier::Read, &mMachine);

    struct sigaction action = {};
    action.sa_handler = &Sdcard::signalHandler;
    ::sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    struct Registration
    {
        int signalNumber;
        std::optional<struct sigaction>& previous;
    };
    for (const Registration& registration :
         {Registration{SIGHUP, mPreviousHupAction}, Registration{SIGTERM, mPreviousTermAction}}) {
        struct sigaction previous = {};
        if (::sigaction(registration.signalNumber, &action, &previous) != 0) {
            const QByteArray why = tavoutil::systemErrorText(errno);
            TRACK_ERROR(logger(), "Can't register sigaction (" + why + ")");
            return;
        }
        registration.previous = previous;
    }
}

void Sdcard::unregisterSignalHandler()
{
    if (mPreviousHupAction) {
        ::sigaction(SIGHUP, &*mPreviousHupAction, nullptr);
    }
    if (mPreviousTermAction) {
        ::sigaction(SIGTERM, &*mPreviousTermAction, nullptr);
    }
    static_cast<void>(std::signal(SIGSEGV, SIG_DFL));
    delete mSignalNotifier;
    mSignalNotifier = nullptr;
    for (int& fd : mSignalFd) {
        ::close(fd);
        fd = -1;
    }
}

void Sdcard::signalHandler(int signalNumber)
{
    if (mSignalFd[0] == -1) {
        return;
    }
    const int savedErrno = errno;
    const auto byte = static_cast<char>(signalNumber);
    // A full socket already holds what there is to say.
    [[maybe_unused]] const ssize_t written = ::write(mSignalFd[0], &byte, 1);
    errno = savedErrno;
}

void Sdcard::checkSDcardPresent()
{
    if (QFile::exists(mConfig.devicePath())) {
        TRACK_INFO(logger(), "SD Card is already present");
        Q_EMIT SD_INSERT();
    }
}

bool Sdcard::hasEjectButton()
{
    return QFile::exists(SdcardDefs::kInputSdEjectButton);
}

void Sdcard::readInputDevice()
{
    QFile button(SdcardDefs::kInputSdEjectButton);
    if (!button.open(QIODevice::ReadOnly)) {
        return;
    }
    bool isNumber = false;
    const int level = button.readAll().trimmed().toInt(&isNumber);
    button.close();
    if (!isNumber) {
        return;
    }
    if (level != 1) {
        mEjectPressCount = 0;
        return;
    }
    ++mEjectPressCount;
    if (mEjectPressCount == kEjectPressReadings) {
        mEjectPressCount = 0;
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
    const qint64 sinceFormatMs = mFsBirthTime.msecsTo(QDateTime::currentDateTime());
    mFsBirthTime = QDateTime();
    if (sinceFormatMs >= kFormatEchoFirstMs && sinceFormatMs <= kFormatEchoLastMs) {
        return;
    }
    mStateTimer.stop();
    setTransition(Transition::CardRemoved);
    mCapacityWatcher.abandonRuns();
    // Its limits are not those of the next card.
    mCapacityWatcher.storageIsUnmounted();
    const QString& mountPoint = mConfig.mountPoint();
    if (getMountState(logger(), mountPoint) == MountState::ReadWrite) {
        TRACK_INFO(logger(), "Force unmount device (if not already)");
        umountDevice(mountPoint, true);
    }
}

void Sdcard::cardEjectTriggered()
{
    setTransition(Transition::EjectRequested);
    mFsBirthTime = QDateTime();
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
    mFsBirthTime = birth;
}
