#include "TerminationSignals.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>

std::array<int, 2> TerminationSignals::mSignalFd = {-1, -1};

QByteArray TerminationSignals::setUp(QObject* notifierParent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, mSignalFd.data()) != 0) {
        return "Can't create socket pair (" + tavoutil::systemErrorText(errno) + ")";
    }
    // Nobody reads the socket: once it is full, a blocking write would never return. Programs that
    // the service starts must not inherit it.
    for (const int fd : mSignalFd) {
        ::fcntl(fd, F_SETFL, O_NONBLOCK);
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    mNotifier = new QSocketNotifier(mSignalFd[1], QSocketNotifier::Read, notifierParent);
    mNotifier->setEnabled(false);

    struct sigaction action = {};
    action.sa_handler = &TerminationSignals::handle;
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
            return "Can't register sigaction (" + tavoutil::systemErrorText(errno) + ")";
        }
        registration.previous = previous;
    }
    return {};
}

void TerminationSignals::tearDown()
{
    if (mPreviousHupAction) {
        ::sigaction(SIGHUP, &*mPreviousHupAction, nullptr);
    }
    if (mPreviousTermAction) {
        ::sigaction(SIGTERM, &*mPreviousTermAction, nullptr);
    }
    static_cast<void>(std::signal(SIGSEGV, SIG_DFL));
    delete mNotifier;
    mNotifier = nullptr;
    for (int& fd : mSignalFd) {
        ::close(fd);
        fd = -1;
    }
}

void TerminationSignals::handle(int signalNumber)
{
    if (mSignalFd[0] == -1) {
        return;
    }
    const int savedErrno = errno;
    const auto byte = static_cast<char>(signalNumber);
    // If the socket is full, a request is already pending.
    [[maybe_unused]] const ssize_t written = ::write(mSignalFd[0], &byte, 1);
    errno = savedErrno;
}
