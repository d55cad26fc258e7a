#pragma once

#include <functional>

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Intercepts the service's system calls of the kinds below: records them and can make them fail.
/// Only in test programs that link service_calls.
namespace SystemCalls {

enum class Call
{
    Mount,
    Unmount,
    SocketPair,
    SignalAction,
    Kill,
    AssignDisk ///< libfdisk's opening of a disk
};

/// Makes calls of one kind fail without reaching the system.
/// @param error their errno; with 0 they succeed, still without effect
/// @param times how many of them
/// @param after how many reach the system before
void fail(Call call, int error, int times = 1, int after = 0);
/// Runs @p action on the thread of the next call of one kind, right before that call.
void during(Call call, std::function<void()> action);
/// Lets all calls reach the system again, and clears the record.
void reset();
/// The calls since the last takeCalls() or reset(), including failed ones, with their arguments:
/// "mount /dev/a /media/b ext4 1024 rw", "umount2 /media/b 0", "kill 17 15".
QStringList takeCalls();

} // namespace SystemCalls
