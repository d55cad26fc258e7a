#include <tavoutil/TrackSystem.h>

#include <algorithm>
#include <clocale>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include <langinfo.h>

#include <log4cxx/consoleappender.h>
#include <log4cxx/fileappender.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/spi/appenderattachable.h>
#include <log4cxx/spi/loggerrepository.h>
#include <log4cxx/xml/domconfigurator.h>

namespace {

void useUtf8()
{
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
        static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));
    }
}

bool isUsable(const log4cxx::AppenderPtr& appender)
{
    if (appender->requiresLayout() && appender->getLayout() == nullptr) {
        return false;
    }
    if (const auto file = log4cxx::cast<log4cxx::FileAppender>(appender)) {
        return file->getWriter() != nullptr;
    }
    if (const auto group = log4cxx::cast<log4cxx::spi::AppenderAttachable>(appender)) {
        const log4cxx::AppenderList members = group->getAllAppenders();
        return !members.empty() && std::all_of(members.begin(), members.end(), isUsable);
    }
    return true;
}

log4cxx::AppenderPtr standardError()
{
    const auto layout = std::make_shared<log4cxx::PatternLayout>("%d{ISO8601} %-5p %c: %m%n");
    return std::make_shared<log4cxx::ConsoleAppender>(layout,
                                                      log4cxx::ConsoleAppender::getSystemErr());
}

/// Replaces the appenders that cannot be used.
/// @return true if there was nothing to replace
bool ensureRecordsAreWritten()
{
    const log4cxx::LoggerPtr root = log4cxx::LogManager::getRootLogger();
    log4cxx::LoggerList loggers = log4cxx::LogManager::getCurrentLoggers();
    loggers.push_back(root);
    const log4cxx::AppenderPtr substitute = standardError();
    bool everyoneWrites = true;
    bool anyoneWrites = false;
    for (const log4cxx::LoggerPtr& logger : loggers) {
        for (const log4cxx::AppenderPtr& appender : logger->getAllAppenders()) {
            if (isUsable(appender)) {
                anyoneWrites = true;
                continue;
            }
            everyoneWrites = false;
            logger->removeAppender(appender);
            // The other loggers pass their records on to the root.
            if (!logger->getAdditivity()) {
                logger->addAppender(substitute);
            }
        }
    }
    if (!everyoneWrites || !anyoneWrites) {
        root->addAppender(substitute);
    }
    return everyoneWrites && anyoneWrites;
}

} // namespace

bool initializeTrackSystem(const std::string& file)
{
    useUtf8();
    // Otherwise log4cxx looks for configurations in the working directory.
    log4cxx::LogManager::getLoggerRepository()->setConfigured(true);

    const bool isRead = log4cxx::xml::DOMConfigurator::configure(file) ==
                        log4cxx::spi::ConfigurationStatus::Configured;
    const bool isUsable = ensureRecordsAreWritten() && isRead;
    if (!isUsable) {
        std::cerr << "Cannot use tracking configuration '" << file
                  << "'; log records go to standard error" << std::endl;
    }
    return isUsable;
}
