#include "ProgramRunner.h"

#include <QTextStream>

#include <tavoutil/TrackLog.h>

#include "ChildProcess.h"

namespace {

// The functions in the records: see the header.
constexpr tavoutil::RecordOrigin kRunLogged{
    "sdcard", "static int Sdcard::runCMD(log4cxx::LoggerPtr, const QString&, const QStringList&, "
              "bool, int)"};
constexpr tavoutil::RecordOrigin kRunCaptured{
    "sdcard", "int Sdcard::runCMD(const QString&, const QStringList&, QByteArray&, bool, int)"};

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
    // In the "C" locale the locale's codec would lose non-ASCII characters.
    stream.setCodec("UTF-8");
    while (!stream.atEnd()) {
        lines.append(stream.readLine());
    }
    return lines;
}

bool start(ChildProcess& process, const QString& program, const QStringList& arguments)
{
    process.start(program, arguments, QIODevice::ReadWrite);
    return process.waitForStarted(kStartTimeoutMs);
}

void logCommand(const tavoutil::RecordOrigin& origin, const log4cxx::LoggerPtr& logger,
                const QString& program, const QStringList& arguments)
{
    TRACK_INFO_FROM(origin, logger, "Executing '" + commandLine(program, arguments) + "'...");
}

void logNotStarted(const tavoutil::RecordOrigin& origin, const log4cxx::LoggerPtr& logger,
                   const ChildProcess& process)
{
    TRACK_ERROR_FROM(
        origin, logger,
        "Starting command failed (exitstatus:" + QByteArray::number(process.exitStatus()) + ")");
}

void logNotFinished(const tavoutil::RecordOrigin& origin, const log4cxx::LoggerPtr& logger,
                    const ChildProcess& process, ChildProcess::End end)
{
    if (end == ChildProcess::End::Finished) {
        TRACK_ERROR_FROM(origin, logger, "QProcess::CrashExit: " + process.errorString());
    } else {
        TRACK_ERROR_FROM(origin, logger, "Wait until command finished failed (error or timeout)");
    }
}

} // namespace

int ProgramRunner::run(const log4cxx::LoggerPtr& logger, const QString& program,
                       const QStringList& arguments, bool verbose, int timeoutMs)
{
    if (ChildProcess::isAbandoned()) {
        return kNotRun;
    }
    if (verbose) {
        logCommand(kRunLogged, logger, program, arguments);
    }
    ChildProcess process;
    if (!start(process, program, arguments)) {
        process.close();
        logNotStarted(kRunLogged, logger, process);
        return kNotRun;
    }
    const ChildProcess::End end = process.waitForEnd(timeoutMs);
    if (end == ChildProcess::End::Abandoned) {
        return kNotRun;
    }
    if (verbose && logger->isInfoEnabled()) {
        for (const QString& line : linesOf(cutAtNul(process.readAllStandardOutput()))) {
            TRACK_INFO_FROM(kRunLogged, logger, line);
        }
    }
    if (verbose && logger->isErrorEnabled()) {
        for (const QString& line : linesOf(cutAtNul(process.readAllStandardError()))) {
            TRACK_ERROR_FROM(kRunLogged, logger, line);
        }
    }
    if (end == ChildProcess::End::Finished && process.exitStatus() == QProcess::NormalExit) {
        return process.exitCode();
    }
    logNotFinished(kRunLogged, logger, process, end);
    return kNotRun;
}

int ProgramRunner::run(QObject* parent, const log4cxx::LoggerPtr& logger, const QString& program,
                       const QStringList& arguments, QByteArray& output, bool verbose,
                       int timeoutMs)
{
    if (verbose) {
        logCommand(kRunCaptured, logger, program, arguments);
    }
    ChildProcess process(parent);
    if (!start(process, program, arguments)) {
        process.close();
        logNotStarted(kRunCaptured, logger, process);
        return kNotRun;
    }
    const ChildProcess::End end = process.waitForEnd(timeoutMs);
    if (verbose && logger->isErrorEnabled()) {
        for (const QString& line : linesOf(process.readAllStandardError())) {
            TRACK_ERROR_FROM(kRunCaptured, logger, line);
        }
    }
    if (end == ChildProcess::End::Finished && process.exitStatus() == QProcess::NormalExit) {
        output = process.readAllStandardOutput();
        if (verbose && logger->isInfoEnabled()) {
            for (const QString& line : linesOf(output)) {
                TRACK_INFO_FROM(kRunCaptured, logger, line);
            }
        }
        process.close();
        return process.exitCode();
    }
    logNotFinished(kRunCaptured, logger, process, end);
    process.close();
    return kNotRun;
}
