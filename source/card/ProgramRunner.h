#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <log4cxx/logger.h>

class QObject;

/// Runs external programs, without a shell, and waits for them. Its records always name the
/// published function Sdcard::runCMD().
namespace ProgramRunner {

/// Runs a program and logs its output. Safe on any thread.
/// @param logger receives the errors and, if @p verbose, the command line and the output
/// @param timeoutMs the time limit of the started program
/// @return its exit code, or -1 if it did not start, crashed or took too long; a program that took
/// too long is killed. If the thread was asked to end (ChildProcess::isAbandoned()), starts no
/// program, kills a running one, and returns -1 without logging
int run(const log4cxx::LoggerPtr& logger, const QString& program, const QStringList& arguments,
        bool verbose, int timeoutMs);

/// The same for a caller that needs the output.
/// @param parent the process's parent object; call it on its thread
/// @param output receives the standard output; unchanged if -1 is returned
int run(QObject* parent, const log4cxx::LoggerPtr& logger, const QString& program,
        const QStringList& arguments, QByteArray& output, bool verbose, int timeoutMs);

} // namespace ProgramRunner
