#pragma once

#include <QProcess>

#include <sys/types.h>

/// A program that the service starts and waits for. It does not outlive the service, nor the run of
/// a worker that waits for it.
class ChildProcess : public QProcess
{
public:
    enum class End
    {
        Finished,    ///< by itself, also by a crash
        NotFinished, ///< in the given time
        Abandoned    ///< isAbandoned(), and killed
    };

    /// Whether the calling thread is to end (QThread::requestInterruption()), so that nobody needs
    /// its programs any more.
    static bool isAbandoned();

    /// @param parent the parent object, in whose thread the program is started and waited for
    explicit ChildProcess(QObject* parent = nullptr);

    /// Waits for the end of the started program. The destructor kills one that has not finished.
    /// @param timeoutMs -1 for as long as it takes
    End waitForEnd(int timeoutMs);

    /// Runs a program to its end, with the service's own standard output and error.
    /// @return its exit code, or -1 when it did not start, crashed or was abandoned
    static int execute(const QString& program, const QStringList& arguments);

protected:
    void setupChildProcess() override;

private:
    pid_t mServiceId;
};
