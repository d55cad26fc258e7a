#pragma once

#include <functional>

#include <QByteArray>
#include <QString>
#include <QStringList>

/// The service's system calls of the kinds below, on their way to the system: they can be seen, and
/// be made to fail. Only in test programs that link service_calls.
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

/// Lets calls of one kind fail without reaching the system.
/// @param error the error number that they leave; with 0 they succeed, still without effect
/// @param times how many of them
/// @param after how many succeed before
void fail(Call call, int error, int times = 1, int after = 0);
/// Does @p action in the thread and at the time of the next call of one kind, before that call.
void during(Call call, std::function<void()> action);
/// Lets all calls reach the system again, and forgets those seen.
void reset();
/// The calls seen since the last takeCalls() or reset(), failed ones too, with their arguments:
/// "mount /dev/a /media/b ext4 1024 rw", "umount2 /media/b 0", "kill 17 15".
QStringList takeCalls();

} // namespace SystemCalls
