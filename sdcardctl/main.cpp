#include <QCoreApplication>
#include <QTextStream>

#include <log4cxx/logmanager.h>
#include <log4cxx/spi/loggerrepository.h>

#include "CommandLine.h"
#include "Completion.h"
#include "Output.h"

namespace {

// Code that is shared with the service writes log records. Marks log4cxx as configured, because it
// would look for a configuration in the working directory otherwise.
void switchLoggingOff()
{
    const log4cxx::spi::LoggerRepositoryPtr repository = log4cxx::LogManager::getLoggerRepository();
    repository->setConfigured(true);
    repository->setThreshold(log4cxx::Level::getOff());
}

} // namespace

int main(int argc, char* argv[])
{
    using namespace sdcardctl;
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(SDCARDCTL_VERSION));
    switchLoggingOff();

    QTextStream results(stdout);
    QTextStream notes(stderr);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == kCompleteCommand) {
        Output output(results, notes, false, false);
        printCompletion(arguments.mid(2), output);
        return static_cast<int>(output.finish(ExitStatus::Success));
    }
    const auto parsed = parseCommandLine(arguments);
    const bool isJson = parsed && parsed->invocation && parsed->invocation->isJson;
    Output output(results, notes, isJson, !isJson && Output::coloursWanted());
    if (!parsed) {
        return static_cast<int>(output.fail(parsed.failure()));
    }
    if (!parsed->invocation) {
        output.line(parsed->text);
        return static_cast<int>(output.finish(ExitStatus::Success));
    }
    const Invocation& invocation = *parsed->invocation;
    return static_cast<int>(output.finish(invocation.command->run(invocation, output)));
}
