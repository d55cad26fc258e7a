#include "CommandLine.h"

#include <algorithm>
#include <array>
#include <limits>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>

#include "Commands.h"

namespace sdcardctl {

namespace {

constexpr int kMsPerSecond = 1000;

Failure usage(const QString& message)
{
    return {ExitStatus::Usage, message + " Try \"sdcardctl --help\"."};
}

QString description()
{
    QString text = QStringLiteral("Shows and drives the SD card through its service.\n\nCommands:");
    for (const Command& command : commands()) {
        const QString call = QString::fromLatin1(command.name) + " " + command.arguments;
        text += "\n  " + call.leftJustified(20) + QLatin1String(command.description);
    }
    return text;
}

const Command* commandNamed(const QString& name)
{
    const auto& all = commands();
    const auto* const found = std::find_if(all.begin(), all.end(), [&name](const Command& command) {
        return name == QLatin1String(command.name);
    });
    return found == all.end() ? nullptr : found;
}

struct Options
{
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")},
                            QStringLiteral("Show this help.")};
    QCommandLineOption version{{QStringLiteral("v"), QStringLiteral("version")},
                               QStringLiteral("Show the version.")};
    QCommandLineOption json{QStringLiteral("json"), QStringLiteral("Print JSON, for programs.")};
    QCommandLineOption bus{QStringLiteral("bus"),
                           QStringLiteral("Use this message bus instead of the system bus."),
                           QStringLiteral("address")};
    QCommandLineOption config{QStringLiteral("config"),
                              QStringLiteral("status, list: the media configuration that the "
                                             "service was started with, if it is not the default."),
                              QStringLiteral("file")};
    QCommandLineOption timeout{QStringLiteral("timeout"),
                               QStringLiteral("wait: give up after so many seconds."),
                               QStringLiteral("seconds")};
    QCommandLineOption strict{QStringLiteral("strict"),
                              QStringLiteral("check-config: fail on warnings, too.")};
    QCommandLineOption watched{QStringLiteral("watched"),
                               QStringLiteral("list: only directories with a watched size.")};
};

// The options of single commands that are set but do not belong to @p command.
QStringList strayOptions(const QCommandLineParser& parser, const Options& options,
                         const Command& command)
{
    struct Owned
    {
        const QCommandLineOption& option;
        CommandOption flag;
    };
    QStringList stray;
    for (const Owned& owned : {Owned{options.config, ConfigOption},
                               {options.timeout, TimeoutOption},
                               {options.strict, StrictOption},
                               {options.watched, WatchedOption}}) {
        if (parser.isSet(owned.option) && (command.options & owned.flag) == 0) {
            stray.append("--" + owned.option.names().constFirst());
        }
    }
    return stray;
}

std::optional<int> millisecondsFrom(const QString& seconds)
{
    bool isNumber = false;
    const double value = seconds.toDouble(&isNumber) * kMsPerSecond;
    if (!isNumber || !(value >= 0) || value > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

Result<ParsedCommandLine> invocationOf(const QCommandLineParser& parser, const Options& options)
{
    QStringList arguments = parser.positionalArguments();
    if (arguments.isEmpty()) {
        return usage(QStringLiteral("A command is missing."));
    }
    Invocation invocation;
    const QString name = arguments.takeFirst();
    invocation.command = commandNamed(name);
    if (invocation.command == nullptr) {
        return usage("There is no command \"" + name + "\".");
    }
    const Command& command = *invocation.command;
    if (arguments.size() < command.minArguments || arguments.size() > command.maxArguments) {
        const QString call = (name + " " + command.arguments).trimmed();
        return usage("The command is called as \"sdcardctl " + call + "\".");
    }
    const QStringList stray = strayOptions(parser, options, command);
    if (!stray.isEmpty()) {
        return usage("The command \"" + name + "\" does not take " + stray.join(", ") + ".");
    }
    if (parser.isSet(options.timeout)) {
        invocation.timeoutMs = millisecondsFrom(parser.value(options.timeout));
        if (!invocation.timeoutMs) {
            return usage(QStringLiteral("--timeout takes a number of seconds."));
        }
    }
    invocation.arguments = arguments;
    invocation.isJson = parser.isSet(options.json);
    invocation.busAddress = parser.value(options.bus);
    invocation.configFile = parser.value(options.config);
    invocation.isStrict = parser.isSet(options.strict);
    invocation.onlyWatched = parser.isSet(options.watched);
    return ParsedCommandLine{invocation, {}};
}

} // namespace

Result<ParsedCommandLine> parseCommandLine(const QStringList& arguments)
{
    const Options options;
    QCommandLineParser parser;
    parser.setApplicationDescription(description());
    parser.addOptions({options.help, options.version, options.json, options.bus, options.config,
                       options.timeout, options.strict, options.watched});
    parser.addPositionalArgument(QStringLiteral("command"),
                                 QStringLiteral("What to do; see above and sdcardctl(1)."),
                                 QStringLiteral("command [argument]"));
    if (!parser.parse(arguments)) {
        return usage(parser.errorText());
    }
    if (parser.isSet(options.help)) {
        return ParsedCommandLine{std::nullopt, parser.helpText().trimmed()};
    }
    if (parser.isSet(options.version)) {
        return ParsedCommandLine{std::nullopt, QCoreApplication::applicationName() + " " +
                                                   QCoreApplication::applicationVersion()};
    }
    return invocationOf(parser, options);
}

} // namespace sdcardctl
