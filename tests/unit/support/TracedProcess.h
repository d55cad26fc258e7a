#pragma once

#include <array>
#include <functional>

#include <QByteArray>
#include <QMap>
#include <QStringList>

#include <sys/syscall.h>
#include <sys/types.h>

/// Stands in for another program that acts at exactly one moment. The code under test runs in a
/// child process that is stopped before each of its system calls, which can be counted. It must not
/// start threads.
class TracedProcess
{
public:
    /// A system call that is about to be made.
    struct Call
    {
        /// As in SYS_.... On a 32-bit machine the C library often makes other calls than on a
        /// 64-bit one (statx, _llseek, futex_time64): a test that counts calls shows which.
        long number;
        std::array<quint64, 6> arguments;
        int count; ///< number of such calls so far, with this one
        pid_t process;

        /// The string at the address in an argument.
        QByteArray text(int argument) const;
        /// The path in a status call; empty in other calls and for an open descriptor.
        QByteArray statusPath() const;
        /// The AT_... flags of a status call; 0 in other calls.
        quint64 statusFlags() const;
    };
    using Observer = std::function<void(const Call&)>;

    /// @param work runs in the child; output() returns its result
    /// @param onCall runs in this process before each call of the child
    explicit TracedProcess(const std::function<QStringList()>& work, const Observer& onCall = {});

    /// Whether the child has completed the work.
    bool isFinished() const { return mIsFinished; }
    const QStringList& output() const { return mOutput; }
    /// How many calls of @p number there were.
    int count(long number) const { return mCounts.value(number); }

private:
    void follow(pid_t process, const Observer& onCall);

    bool mIsFinished = false;
    QStringList mOutput;
    QMap<long, int> mCounts;
};
