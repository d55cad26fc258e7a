#pragma once

#include <QProcess>

#include <sys/types.h>

/// A program that the service starts and waits for. It ends at the latest with the service, or with
/// the worker's run that waits for it.
class ChildProcess : public QProcess
{
public:
    enum class End
    {
        Finished,    ///< by itself, also by a crash
        NotFinished, ///< in the given time
        Abandoned    ///< isAbandoned(), and killed
    };

    /// Whether the calling thread was asked to end (QThread::requestInterruption()) and so no
    /// longer needs its programs.
    static bool isAbandoned();

    /// @param parent the parent object; start and wait on its thread
    explicit ChildProcess(QObject* parent = nullptr);

    /// Waits for the end of the started program. The destructor kills a program that still runs.
    /// @param timeoutMs -1 for no limit
    End waitForEnd(int timeoutMs);

    /// Runs a program to its end, with the service's own standard output and error.
    /// @return its exit code, or -1 when it did not start, crashed or was abandoned
    static int execute(const QString& program, const QStringList& arguments);

protected:
    void setupChildProcess() override;

private:
    /// Kills the program and what it has started itself, which may have files on the card open.
    void killGroup();

    pid_t mServiceId;
};
