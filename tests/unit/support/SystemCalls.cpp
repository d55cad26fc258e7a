#include "SystemCalls.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <optional>
#include <utility>

#include <QMutex>
#include <QMutexLocker>

#include <sys/mount.h>
#include <sys/socket.h>

using SystemCalls::Call;

namespace {

struct Fault
{
    int error = 0;
    int times = 0;
    int after = 0;
};

QMutex mutex;
std::array<Fault, 6> faults;
std::array<std::function<void()>, 6> actions;
QStringList calls;

// Records a call. Returns a result if the call must not reach the system, with errno set.
std::optional<int> stopped(Call call, const QString& text)
{
    QMutexLocker locker(&mutex);
    const auto action =
        std::exchange(actions.at(static_cast<std::size_t>(call)), std::function<void()>());
    if (action) {
        locker.unlock();
        action();
        locker.relock();
    }
    calls.append(text);
    Fault& fault = faults.at(static_cast<std::size_t>(call));
    if (fault.after > 0) {
        --fault.after;
        return std::nullopt;
    }
    if (fault.times == 0) {
        return std::nullopt;
    }
    --fault.times;
    if (fault.error == 0) {
        return 0;
    }
    errno = fault.error;
    return -1;
}

} // namespace

void SystemCalls::fail(Call call, int error, int times, int after)
{
    const QMutexLocker locker(&mutex);
    faults.at(static_cast<std::size_t>(call)) = {error, times, after};
}

void SystemCalls::during(Call call, std::function<void()> action)
{
    const QMutexLocker locker(&mutex);
    actions.at(static_cast<std::size_t>(call)) = std::move(action);
}

void SystemCalls::reset()
{
    const QMutexLocker locker(&mutex);
    faults.fill({});
    actions.fill({});
    calls.clear();
}

QStringList SystemCalls::takeCalls()
{
    const QMutexLocker locker(&mutex);
    QStringList taken;
    taken.swap(calls);
    return taken;
}

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

int __real_mount(const char*, const char*, const char*, unsigned long, const void*);
int __real_umount2(const char*, int);
int __real_socketpair(int, int, int, int*);
int __real_sigaction(int, const struct sigaction*, struct sigaction*);
int __real_kill(pid_t, int);
int __real_fdisk_assign_device(void*, const char*, int);

int __wrap_mount(const char* source, const char* target, const char* type, unsigned long flags,
                 const void* data)
{
    const auto result = stopped(Call::Mount, QStringLiteral("mount %1 %2 %3 %4 %5")
                                                 .arg(source, target, type, QString::number(flags),
                                                      static_cast<const char*>(data)));
    return result ? *result : __real_mount(source, target, type, flags, data);
}

int __wrap_umount2(const char* target, int flags)
{
    const auto result =
        stopped(Call::Unmount, QStringLiteral("umount2 %1 %2").arg(target).arg(flags));
    return result ? *result : __real_umount2(target, flags);
}

int __wrap_socketpair(int domain, int type, int protocol, int* fds)
{
    const auto result =
        stopped(Call::SocketPair,
                QStringLiteral("socketpair %1 %2 %3").arg(domain).arg(type).arg(protocol));
    return result ? *result : __real_socketpair(domain, type, protocol, fds);
}

int __wrap_sigaction(int signalNumber, const struct sigaction* action, struct sigaction* previous)
{
    const int flags = action != nullptr ? action->sa_flags : 0;
    const auto result =
        stopped(Call::SignalAction, QStringLiteral("sigaction %1 %2").arg(signalNumber).arg(flags));
    return result ? *result : __real_sigaction(signalNumber, action, previous);
}

int __wrap_kill(pid_t processId, int signalNumber)
{
    const auto result =
        stopped(Call::Kill, QStringLiteral("kill %1 %2").arg(processId).arg(signalNumber));
    return result ? *result : __real_kill(processId, signalNumber);
}

int __wrap_fdisk_assign_device(void* context, const char* path, int isReadOnly)
{
    const auto result = stopped(Call::AssignDisk, QStringLiteral("assign %1").arg(path));
    return result ? *result : __real_fdisk_assign_device(context, path, isReadOnly);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
