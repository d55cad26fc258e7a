#include "sdcard.h"

#include <QProcess>
#include <QTextStream>

#include <tavoutil/TrackLog.h>

namespace {

constexpr int kStartTimeoutMs = 30000;
constexpr int kNotRun = -1;

QString commandLine(const QString& program, const QStringList& arguments)
{
    return arguments.isEmpty() ? program : program + " " + arguments.join(" ");
}

QByteArray cutAtNul(const QByteArray& output)
{
    return {output.constData()};
}

QStringList linesOf(const QByteArray& output)
{
    QStringList lines;
    QTextStream stream(output);
    // The locale's codec would lose what is not ASCII where the locale is "C".
    stream.setCodec("UTF-8");
    while (!stream.atEnd()) {
        lines.append(stream.readLine());
    }
    return lines;
}

bool start(QProcess& process, const QString& program, const QStringList& arguments)
{
    process.start(program, arguments, QIODevice::ReadWrite);
    return process.waitForStarted(kStartTimeoutMs);
}

void logNotStarted(const log4cxx::LoggerPtr& logger, const QProcess& process)
{
    TRACK_ERROR(logger, "Starting command failed (exitstatus:" +
                            QByteArray::number(process.exitStatus()) + ")");
}

void logNotFinished(const log4cxx::LoggerPtr& logger, const QProcess& process, bool isFinished)
{
    if (isFinished) {
        TRACK_ERROR(logger, "QProcess::CrashExit: " + process.errorString());
    } else {
        TRACK_ERROR(logger, "Wait until command finished failed (error or timeout)");
    }
}

} // namespace

// Worker threads hand over their own logger, by value.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int Sdcard::runCMD(log4cxx::LoggerPtr logger, const QString& program, const QStringList& arguments,
                   bool verbose, int timeoutMs)
{
    if (verbose) {
        TRACK_INFO(logger, "Executing '" + commandLine(program, arguments) + "'...");
    }
    QProcess process;
    if (!start(process, program, arguments)) {
        process.close();
        logNotStarted(logger, process);
        return kNotRun;
    }
    const bool isFinished = process.waitForFinished(timeoutMs);
    if (verbose && logger->isInfoEnabled()) {
        for (const QString& line : linesOf(cutAtNul(process.readAllStandardOutput()))) {
            TRACK_INFO(logger, line);
        }
    }
    if (verbose && logger->isErrorEnabled()) {
        for (const QString& line : linesOf(cutAtNul(process.readAllStandardError()))) {
            TRACK_ERROR(logger, line);
        }
    }
    if (isFinished && process.exitStatus() == QProcess::NormalExit) {
        return process.exitCode();
    }
    logNotFinished(logger, process, isFinished);
    return kNotRun;
}

int Sdcard::runCMD(const QString& program, const QStringList& arguments, QByteArray& output,
                   bool verbose, int timeoutMs)
{
    if (verbose) {
        TRACK_INFO(logger(), "Executing '" + commandLine(program, arguments) + "'...");
    }
    QProcess process(this);
    if (!start(process, program, arguments)) {
        process.close();
        logNotStarted(logger(), process);
        return kNotRun;
    }
    const bool isFinished = process.waitForFinished(timeoutMs);
    if (verbose && logger()->isErrorEnabled()) {
        for (const QString& line : linesOf(process.readAllStandardError())) {
            TRACK_ERROR(logger(), line);
        }
    }
    if (isFinished && process.exitStatus() == QProcess::NormalExit) {
        output = process.readAllStandardOutput();
        if (verbose && logger()->isInfoEnabled()) {
            for (const QString& line : linesOf(output)) {
                TRACK_INFO(logger(), line);
            }
        }
        process.close();
        return process.exitCode();
    }
    logNotFinished(logger(), process, isFinished);
    process.close();
    return kNotRun;
}
