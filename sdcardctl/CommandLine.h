#pragma once

#include <array>
#include <optional>

#include <QString>
#include <QStringList>

#include "Output.h"
#include "Result.h"

namespace sdcardctl {

struct Command;

/// A valid command line.
struct Invocation
{
    const Command* command = nullptr;
    QStringList arguments; ///< those after the command's name
    bool isJson = false;
    bool hasLegend = true;
    QString busAddress; ///< empty for the system bus
    QString configFile; ///< empty for the service's default
    std::optional<int> timeoutMs;
    bool isStrict = false;
    bool onlyWatched = false;
};

/// Options that not every command takes.
enum CommandOption : unsigned int
{
    NoOption = 0, ///< in a row of kOptions: an option of all commands
    ConfigOption = 1,
    TimeoutOption = 2,
    StrictOption = 4,
    WatchedOption = 8,
    LegendOption = 16
};

/// One option of the command line.
struct Option
{
    CommandOption flag;
    const char* name;
    const char* shortName;
    const char* value; ///< what the help calls its value; empty where it has none
    const char* description;
};

// clang-format off
inline constexpr std::array kOptions{
    Option{NoOption,      "help",      "h", "",        "Show this help, or that of a command."},
    Option{NoOption,      "version",   "v", "",        "Show the version."},
    Option{NoOption,      "json",      "",  "",        "Print JSON, for programs."},
    Option{NoOption,      "bus",       "",  "address", "Use this message bus instead of the system bus."},
    Option{ConfigOption,  "config",    "",  "file",    "The media configuration that the service was started with, if it is not the default."},
    Option{LegendOption,  "no-legend", "",  "",        "Print no column headings and no summary."},
    Option{WatchedOption, "watched",   "",  "",        "Only directories with a watched size."},
    Option{TimeoutOption, "timeout",   "",  "seconds", "Give up after this many seconds."},
    Option{StrictOption,  "strict",    "",  "",        "Fail on warnings as well."},
};
// clang-format on

/// The kind of a command's argument.
enum class Argument
{
    None,
    Directory,        ///< an identifier
    WatchedDirectory, ///< an identifier of a directory with a watched size
    State,
    File,
    Command
};

/// One command of the command line.
struct Command
{
    const char* name;
    const char* arguments; ///< as the help shows them
    const char* description;
    Argument argument;
    bool isOptional;      ///< whether the argument may be missing
    unsigned int options; ///< of CommandOption
    ExitStatus (*run)(const Invocation& invocation, Output& output);

    /// Whether the command takes an option; every command takes the common ones.
    bool takes(const Option& option) const
    {
        return option.flag == NoOption || (options & option.flag) != 0;
    }
};

/// The command of this name; null if there is none.
const Command* commandNamed(const QString& name);

/// The help of one command, or of the program if @p command is null.
QString helpText(const Command* command);

/// The result of reading a command line: a command to run, or a text to print (for --help and
/// --version).
struct ParsedCommandLine
{
    std::optional<Invocation> invocation;
    QString text;
};

/// Reads a command line; a failure is always Usage.
/// @param arguments with the program's name
Result<ParsedCommandLine> parseCommandLine(const QStringList& arguments);

} // namespace sdcardctl
