#include <tavoutil/TrackSystem.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <langinfo.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <log4cxx/consoleappender.h>
#include <log4cxx/fileappender.h>
#include <log4cxx/helpers/loglog.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/spi/appenderattachable.h>
#include <log4cxx/spi/loggerrepository.h>
#include <log4cxx/xml/domconfigurator.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/XMLDomParser.h>

namespace {

struct Trial
{
    bool survived = false;
    std::string remarks; ///< what log4cxx had to say, or why the trial failed
};

void useUtf8()
{
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
        static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));
    }
}

bool configure(const std::string& file)
{
    try {
        return log4cxx::xml::DOMConfigurator::configure(file) ==
               log4cxx::spi::ConfigurationStatus::Configured;
    } catch (const std::exception& exception) {
        log4cxx::helpers::LogLog::error(exception.what());
        return false;
    }
}

[[noreturn]] void runTrial(const std::string& file, int output)
{
    // If this process crashes, that is a finding and no crash of the program.
    for (const int number : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        static_cast<void>(std::signal(number, SIG_DFL));
    }
    constexpr rlimit kNoCoreDump{0, 0};
    setrlimit(RLIMIT_CORE, &kNoCoreDump);
    dup2(output, STDERR_FILENO);
    configure(file);
    _exit(EXIT_SUCCESS);
}

/// The lines of @p output in one, without the name before and the full stop after each of them.
std::string joined(const std::string& output)
{
    const std::string prefix = "log4cxx: ";
    std::string text;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            line.erase(0, prefix.size());
        }
        line.erase(line.find_last_not_of(". ") + 1);
        text += text.empty() ? line : "; " + line;
    }
    return text;
}

std::string readAll(int file)
{
    std::string content;
    std::array<char, 4096> block{};
    ssize_t length = 0;
    while ((length = read(file, block.data(), block.size())) > 0) {
        content.append(block.data(), static_cast<std::size_t>(length));
    }
    return content;
}

/// Why the file cannot be read at all. log4cxx does not tell where it is broken, and would wait for
/// a pipe's writer.
std::string whyUnreadable(const std::string& file)
{
    IXMLDomParser parser;
    ITCXMLResults results;
    parser.parseFile(file.c_str(), "log4j:configuration", results);
    const bool isCause = results.error == IXMLDomParser::UnreadableFile ||
                         results.error == IXMLDomParser::NotWellFormed;
    return isCause ? parser.getErrorMessage(results.error) : "";
}

Trial tryConfiguration(const std::string& file)
{
    if (const std::string reason = whyUnreadable(file); !reason.empty()) {
        return {false, reason};
    }
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return {false, tavoutil::systemErrorText(errno).toStdString()};
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        runTrial(file, ends[1]);
    }
    const int forkError = errno;
    close(ends[1]);
    const std::string output = readAll(ends[0]);
    close(ends[0]);
    if (child < 0) {
        return {false, tavoutil::systemErrorText(forkError).toStdString()};
    }
    int status = 0;
    if (waitpid(child, &status, 0) == child && WIFSIGNALED(status)) {
        return {false, "log4cxx dies of it with signal " + std::to_string(WTERMSIG(status))};
    }
    return {true, joined(output)};
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
/// @return whether there was nothing to replace
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
            // The others hand their records on to the root.
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

    const Trial trial = tryConfiguration(file);
    log4cxx::helpers::LogLog::setQuietMode(true);
    const bool isRead = trial.survived && configure(file);
    log4cxx::helpers::LogLog::setQuietMode(false);
    const bool isUsable = ensureRecordsAreWritten() && isRead;

    if (!isUsable) {
        std::cerr << "Cannot use tracking configuration '" << file << "': "
                  << (trial.remarks.empty() ? "no appender receives records" : trial.remarks)
                  << "; log records go to standard error" << std::endl;
    } else if (!trial.remarks.empty()) {
        std::cerr << "Tracking configuration '" << file << "': " << trial.remarks << std::endl;
    }
    return isUsable;
}
