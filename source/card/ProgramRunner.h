#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <log4cxx/logger.h>

class QObject;

/// Runs external programs, without a shell, and waits for them. Its records name the published
/// function Sdcard::runCMD(), whoever calls.
namespace ProgramRunner {

/// Runs a program and logs what it writes. Safe on any thread.
/// @param logger receives the errors and, where @p verbose, the command line and the output
/// @param timeoutMs how long the started program may take
/// @return its exit code, or -1 when it did not start, crashed or took too long; then it has ended.
/// On a thread that is to end (ChildProcess::isAbandoned()) no program is started, one that runs is
/// killed, and -1 is returned without a record
int run(const log4cxx::LoggerPtr& logger, const QString& program, const QStringList& arguments,
        bool verbose, int timeoutMs);

/// The same for a caller that needs the output.
/// @param parent the process's parent object, in whose thread this is called
/// @param output receives the standard output; left as it is where -1 is returned
int run(QObject* parent, const log4cxx::LoggerPtr& logger, const QString& program,
        const QStringList& arguments, QByteArray& output, bool verbose, int timeoutMs);

} // namespace ProgramRunner
