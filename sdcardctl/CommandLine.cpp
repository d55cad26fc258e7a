#include "CommandLine.h"

#include <algorithm>
#include <limits>
#include <vector>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>

#include "CardStatus.h"
#include "Commands.h"

namespace sdcardctl {

namespace {

constexpr int kMsPerSecond = 1000;
constexpr int kCallWidth = 20;
// With more differing letters a suggestion would be a guess.
constexpr int kMaxTypos = 2;

Failure usage(const QString& message)
{
    return {ExitStatus::Usage, message + " Try \"sdcardctl --help\"."};
}

QString callOf(const Command& command)
{
    return (QString::fromLatin1(command.name) + " " + command.arguments).trimmed();
}

QString description(const Command* command)
{
    QString text =
        command != nullptr
            ? QLatin1String(command->description) + "."
            : QStringLiteral("Shows and controls the SD card through its service.\n\nCommands:");
    if (command == nullptr) {
        for (const Command& each : commands()) {
            text += "\n  " + callOf(each).leftJustified(kCallWidth) + each.description;
        }
    } else if (command->argument == Argument::State) {
        text += QStringLiteral("\n\nStates:");
        for (const PublishedValue& state : kStates) {
            text += QStringLiteral("\n  ") + QString(state.word).leftJustified(kCallWidth) +
                    state.meaning;
        }
    }
    return text + "\n\nSee sdcardctl(1).";
}

// "status, list: " for an option that only these commands take.
QString ownersOf(const Option& option)
{
    QStringList owners;
    for (const Command& command : commands()) {
        if (option.flag != NoOption && command.takes(option)) {
            owners.append(command.name);
        }
    }
    return owners.isEmpty() ? QString() : owners.join(", ") + ": ";
}

// All options, or only those of @p command.
void addOptions(QCommandLineParser& parser, const Command* command)
{
    for (const Option& option : kOptions) {
        if (command != nullptr && !command->takes(option)) {
            continue;
        }
        QStringList names{option.name};
        if (*option.shortName != '\0') {
            names.prepend(option.shortName);
        }
        const QString prefix = command == nullptr ? ownersOf(option) : QString();
        parser.addOption(
            QCommandLineOption(names, prefix + option.description, QString(option.value)));
    }
}

// The number of letters that were changed, added or left out.
int typosBetween(const QString& left, const QString& right)
{
    std::vector<int> row(static_cast<std::size_t>(right.size()) + 1);
    for (std::size_t j = 0; j < row.size(); ++j) {
        row[j] = static_cast<int>(j);
    }
    for (int i = 0; i < left.size(); ++i) {
        int diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 1; j < row.size(); ++j) {
            const int changed = diagonal + (left[i] == right[static_cast<int>(j) - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

Failure unknownCommand(const QString& name)
{
    const auto& all = commands();
    const auto* const nearest = std::min_element(
        all.begin(), all.end(), [&name](const Command& left, const Command& right) {
            return typosBetween(name, left.name) < typosBetween(name, right.name);
        });
    QString message = "There is no command \"" + name + "\".";
    if (typosBetween(name, nearest->name) <= kMaxTypos) {
        message += QStringLiteral(" Did you mean \"") + nearest->name + "\"?";
    }
    return usage(message);
}

// The given options that @p command does not take.
QStringList strayOptions(const QCommandLineParser& parser, const Command& command)
{
    QStringList stray;
    for (const Option& option : kOptions) {
        if (parser.isSet(option.name) && !command.takes(option)) {
            stray.append(QStringLiteral("--") + option.name);
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

Result<ParsedCommandLine> invocationOf(const QCommandLineParser& parser, const Command& command,
                                       const QStringList& arguments)
{
    const int maxArguments = command.argument == Argument::None ? 0 : 1;
    const int minArguments = command.isOptional ? 0 : maxArguments;
    if (arguments.size() < minArguments || arguments.size() > maxArguments) {
        return usage("The usage is \"sdcardctl " + callOf(command) + "\".");
    }
    const QStringList stray = strayOptions(parser, command);
    if (!stray.isEmpty()) {
        return usage(QStringLiteral("The command \"") + command.name + "\" does not take " +
                     stray.join(", ") + ".");
    }
    Invocation invocation;
    if (parser.isSet(QStringLiteral("timeout"))) {
        invocation.timeoutMs = millisecondsFrom(parser.value(QStringLiteral("timeout")));
        if (!invocation.timeoutMs) {
            return usage(QStringLiteral("--timeout takes a number of seconds."));
        }
    }
    invocation.command = &command;
    invocation.arguments = arguments;
    invocation.isJson = parser.isSet(QStringLiteral("json"));
    invocation.hasLegend = !parser.isSet(QStringLiteral("no-legend"));
    invocation.busAddress = parser.value(QStringLiteral("bus"));
    invocation.configFile = parser.value(QStringLiteral("config"));
    invocation.isStrict = parser.isSet(QStringLiteral("strict"));
    invocation.onlyWatched = parser.isSet(QStringLiteral("watched"));
    return ParsedCommandLine{invocation, {}};
}

} // namespace

const Command* commandNamed(const QString& name)
{
    const auto& all = commands();
    const auto* const found = std::find_if(all.begin(), all.end(), [&name](const Command& command) {
        return name == QLatin1String(command.name);
    });
    return found == all.end() ? nullptr : found;
}

QString helpText(const Command* command)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(description(command));
    addOptions(parser, command);
    const QString call =
        command != nullptr ? callOf(*command) : QStringLiteral("command [argument]");
    parser.addPositionalArgument(QString(), QString(), call);
    // Cuts off the list of arguments, which have no text.
    return parser.helpText().section(QStringLiteral("\n\nArguments:"), 0, 0).trimmed();
}

Result<ParsedCommandLine> parseCommandLine(const QStringList& arguments)
{
    QCommandLineParser parser;
    addOptions(parser, nullptr);
    if (!parser.parse(arguments)) {
        return usage(parser.errorText());
    }
    if (parser.isSet(QStringLiteral("version"))) {
        return ParsedCommandLine{std::nullopt, QCoreApplication::applicationName() + " " +
                                                   QCoreApplication::applicationVersion()};
    }
    QStringList words = parser.positionalArguments();
    const bool isHelp = parser.isSet(QStringLiteral("help"));
    if (words.isEmpty()) {
        if (isHelp) {
            return ParsedCommandLine{std::nullopt, helpText(nullptr)};
        }
        return usage(QStringLiteral("A command is missing."));
    }
    const QString name = words.takeFirst();
    // The command after "help" must exist, too.
    for (const QString& word : QStringList{name} + (name == "help" ? words : QStringList())) {
        if (commandNamed(word) == nullptr) {
            return unknownCommand(word);
        }
    }
    const Command* const command = commandNamed(name);
    if (isHelp) {
        return ParsedCommandLine{std::nullopt, helpText(command)};
    }
    return invocationOf(parser, *command, words);
}

ExitStatus runHelp(const Invocation& invocation, Output& output)
{
    output.line(helpText(commandNamed(invocation.arguments.value(0))));
    return ExitStatus::Success;
}

} // namespace sdcardctl
