#include "Interrupt.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace sdcardctl {

namespace {

volatile int writeEnd = -1;

void forward(int /*signal*/)
{
    const int error = errno;
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(writeEnd, &byte, 1);
    errno = error;
}

void setHandler(void (*handler)(int))
{
    struct sigaction action
    {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace

Interrupt::Interrupt(QObject* parent) : QObject(parent)
{
    std::array<int, 2> ends{};
    // Without the pipe the signals still end the program, but with another status.
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    mReadEnd = ends[0];
    writeEnd = ends[1];
    mNotifier = std::make_unique<QSocketNotifier>(mReadEnd, QSocketNotifier::Read);
    connect(mNotifier.get(), &QSocketNotifier::activated, this, [this] {
        mNotifier->setEnabled(false);
        Q_EMIT requested();
    });
    setHandler(forward);
}

Interrupt::~Interrupt()
{
    if (mReadEnd < 0) {
        return;
    }
    setHandler(SIG_DFL);
    mNotifier.reset();
    ::close(mReadEnd);
    ::close(writeEnd);
    writeEnd = -1;
}

} // namespace sdcardctl
