#include "ChildProcess.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <QDeadlineTimer>
#include <QThread>

#include <sys/prctl.h>
#include <unistd.h>

namespace {

// The longest delay before an abandoned program is killed.
constexpr qint64 kLookIntervalMs = 100;

} // namespace

ChildProcess::ChildProcess(QObject* parent) : QProcess(parent), mServiceId(::getpid()) {}

bool ChildProcess::isAbandoned()
{
    return QThread::currentThread()->isInterruptionRequested();
}

ChildProcess::End ChildProcess::waitForEnd(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    do {
        const qint64 left = deadline.isForever() ? kLookIntervalMs : deadline.remainingTime();
        if (waitForFinished(static_cast<int>(std::min(left, kLookIntervalMs)))) {
            return End::Finished;
        }
        if (isAbandoned()) {
            killGroup();
            waitForFinished();
            return End::Abandoned;
        }
    } while (state() != NotRunning && !deadline.hasExpired());
    killGroup();
    return End::NotFinished;
}

void ChildProcess::killGroup()
{
    // 0 would be the service's own group.
    if (const auto group = static_cast<pid_t>(processId()); group > 0) {
        ::kill(-group, SIGKILL);
    }
}

int ChildProcess::execute(const QString& program, const QStringList& arguments)
{
    if (isAbandoned()) {
        return -1;
    }
    ChildProcess process;
    process.setProcessChannelMode(ForwardedChannels);
    process.start(program, arguments);
    const bool hasEnded = process.waitForStarted(-1) && process.waitForEnd(-1) == End::Finished;
    return hasEnded && process.exitStatus() == NormalExit ? process.exitCode() : -1;
}

void ChildProcess::setupChildProcess()
{
    // In the child, between fork and exec. The signal comes when the waiting thread ends. That
    // thread outlives the program, unless the whole service ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setpgid(0, 0);
    if (::getppid() != mServiceId) {
        // The service has already ended.
        ::_exit(EXIT_FAILURE);
    }
}
