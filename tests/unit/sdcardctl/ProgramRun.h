#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTest>

#include "ExitStatus.h"

/// A run of sdcardctl while this process's event loop serves the bus.
class ProgramRun
{
public:
    static constexpr int kSeconds = 20;

    explicit ProgramRun(const QStringList& arguments, const QProcessEnvironment& environment =
                                                          QProcessEnvironment::systemEnvironment())
    {
        mProcess.setProcessEnvironment(environment);
        mProcess.start(QStringLiteral(SDCARDCTL_PROGRAM), arguments);
    }
    /// A run whose standard output goes to a file.
    ProgramRun(const QStringList& arguments, const char* outputFile)
    {
        mProcess.setStandardOutputFile(outputFile);
        mProcess.start(QStringLiteral(SDCARDCTL_PROGRAM), arguments);
    }

    ProgramRun(const ProgramRun&) = delete;
    ProgramRun(ProgramRun&&) = delete;
    ProgramRun& operator=(const ProgramRun&) = delete;
    ProgramRun& operator=(ProgramRun&&) = delete;
    ~ProgramRun()
    {
        if (isRunning()) {
            mProcess.kill();
            mProcess.waitForFinished();
        }
    }

    /// An exit status as status() gives it.
    static int number(sdcardctl::ExitStatus status) { return static_cast<int>(status); }

    bool isRunning() const { return mProcess.state() != QProcess::NotRunning; }
    qint64 pid() const { return mProcess.processId(); }

    /// Waits for its end.
    /// @return its exit status; -1 when it does not end in time or crashes
    int status()
    {
        const bool hasEnded = QTest::qWaitFor(
            [this] { return mProcess.state() == QProcess::NotRunning; }, kSeconds * 1000);
        return hasEnded && mProcess.exitStatus() == QProcess::NormalExit ? mProcess.exitCode() : -1;
    }

    /// All that it has written to standard output so far.
    QString output()
    {
        mOutput += QString::fromUtf8(mProcess.readAllStandardOutput());
        return mOutput;
    }

    /// Likewise to standard error.
    QString notes()
    {
        mNotes += QString::fromUtf8(mProcess.readAllStandardError());
        return mNotes;
    }

private:
    QProcess mProcess;
    QString mOutput;
    QString mNotes;
};
