#pragma once

#include <array>
#include <functional>

#include <QByteArray>
#include <QMap>
#include <QStringList>

#include <sys/syscall.h>
#include <sys/types.h>

/// Stands in for another program that acts at exactly one moment of the code's run: the code runs
/// in a child process that is stopped before each of its system calls, which can be counted. It
/// must not start threads.
class TracedProcess
{
public:
    /// A system call that is about to be made.
    struct Call
    {
        /// As SYS_... names it. The C library of a 32-bit machine makes other calls than that of a
        /// 64-bit one for much (statx, _llseek, futex_time64): a test that counts calls tells
        /// which.
        long number;
        std::array<quint64, 6> arguments;
        int count; ///< how many of this number there have been, with this one
        pid_t process;

        /// The string that an argument points to.
        QByteArray text(int argument) const;
        /// The path whose status is asked for; empty where none is, or that of an open descriptor.
        QByteArray statusPath() const;
        /// The AT_... flags that it is asked for with; 0 where none is.
        quint64 statusFlags() const;
    };
    using Observer = std::function<void(const Call&)>;

    /// @param work runs in the child; what it returns comes back in output()
    /// @param onCall runs in this process while the child waits to make the call
    explicit TracedProcess(const std::function<QStringList()>& work, const Observer& onCall = {});

    /// Whether the child came to the end of the work.
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
