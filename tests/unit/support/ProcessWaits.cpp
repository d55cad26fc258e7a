#include "ProcessWaits.h"

#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>

#include "ChildProcess.h"

namespace {

QMutex mutex;
QStringList waits;

QString commandOf(const QProcess& process)
{
    return (QStringList{QFileInfo(process.program()).fileName()} + process.arguments()).join(' ');
}

} // namespace

QStringList ProcessWaits::take()
{
    const QMutexLocker locker(&mutex);
    QStringList taken;
    taken.swap(waits);
    return taken;
}

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

bool __real__ZN8QProcess14waitForStartedEi(QProcess*, int);
ChildProcess::End __real__ZN12ChildProcess10waitForEndEi(ChildProcess*, int);

bool __wrap__ZN8QProcess14waitForStartedEi(QProcess* process, int timeoutMs)
{
    {
        const QMutexLocker locker(&mutex);
        waits.append(QStringLiteral("%1: start %2").arg(commandOf(*process)).arg(timeoutMs));
    }
    return __real__ZN8QProcess14waitForStartedEi(process, timeoutMs);
}

ChildProcess::End __wrap__ZN12ChildProcess10waitForEndEi(ChildProcess* process, int timeoutMs)
{
    {
        const QMutexLocker locker(&mutex);
        waits.append(QStringLiteral("%1: end %2").arg(commandOf(*process)).arg(timeoutMs));
    }
    return __real__ZN12ChildProcess10waitForEndEi(process, timeoutMs);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
