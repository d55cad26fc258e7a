#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTest>

#include "ExitStatus.h"

/// A run of sdcardctl. Meanwhile this process's event loop serves the bus.
class ProgramRun
{
public:
    static constexpr int kSeconds = 20;

    /// @param outputFile receives standard output instead of output()
    explicit ProgramRun(
        const QStringList& arguments, const QString& outputFile = QString(),
        const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
    {
        mProcess.setProcessEnvironment(environment);
        mProcess.setStandardOutputFile(outputFile);
        mProcess.start(QStringLiteral(SDCARDCTL_PROGRAM), arguments);
    }
    Q_DISABLE_COPY_MOVE(ProgramRun)
    ~ProgramRun()
    {
        if (isRunning()) {
            mProcess.kill();
            mProcess.waitForFinished();
        }
    }

    /// The output of a run that succeeds without a message; otherwise how it ends.
    static QString answer(const QStringList& arguments)
    {
        ProgramRun run(arguments);
        const bool isGood = run.status() == 0 && run.notes().isEmpty();
        return isGood ? run.output() : run.description();
    }

    /// The message of a run that ends with this status and prints nothing; otherwise how it ends.
    static QString refusal(sdcardctl::ExitStatus status, const QStringList& arguments,
                           const QString& outputFile = QString())
    {
        ProgramRun run(arguments, outputFile);
        const bool isRefused = run.status() == number(status) && run.output().isEmpty();
        return isRefused ? run.notes() : run.description();
    }

    /// An exit status in the form of status().
    static int number(sdcardctl::ExitStatus status) { return static_cast<int>(status); }

    bool isRunning() const { return mProcess.state() != QProcess::NotRunning; }
    qint64 pid() const { return mProcess.processId(); }

    /// Waits for its end.
    /// @return its exit status; -1 if it crashes or does not end in time
    int status()
    {
        const bool hasEnded = QTest::qWaitFor([this] { return !isRunning(); }, kSeconds * 1000);
        return hasEnded && mProcess.exitStatus() == QProcess::NormalExit ? mProcess.exitCode() : -1;
    }

    /// Its standard output so far.
    QString output()
    {
        mOutput += QString::fromUtf8(mProcess.readAllStandardOutput());
        return mOutput;
    }

    /// Its standard error so far.
    QString notes()
    {
        mNotes += QString::fromUtf8(mProcess.readAllStandardError());
        return mNotes;
    }

private:
    QString description()
    {
        return QString("ended with %1: %2%3").arg(status()).arg(output(), notes());
    }

    QProcess mProcess;
    QString mOutput;
    QString mNotes;
};
