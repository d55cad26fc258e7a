#pragma once

#include <optional>

#include <QString>
#include <QStringList>

#include "Output.h"
#include "Result.h"

namespace sdcardctl {

struct Command;

/// A command line that makes sense.
struct Invocation
{
    const Command* command = nullptr;
    QStringList arguments; ///< those after the command's name
    bool isJson = false;
    QString busAddress; ///< empty for the system bus
    QString configFile; ///< empty for the service's default
    std::optional<int> timeoutMs;
    bool isStrict = false;
    bool onlyWatched = false;
};

/// Options that not every command takes.
enum CommandOption : unsigned int
{
    NoOption = 0,
    ConfigOption = 1,
    TimeoutOption = 2,
    StrictOption = 4,
    WatchedOption = 8
};

/// One word of the command line that does something.
struct Command
{
    const char* name;
    const char* arguments; ///< as the help shows them
    const char* description;
    int minArguments;
    int maxArguments;
    unsigned int options; ///< of CommandOption
    ExitStatus (*run)(const Invocation& invocation, Output& output);
};

/// What a command line comes to: something to do, or a text to print (for --help and --version).
struct ParsedCommandLine
{
    std::optional<Invocation> invocation;
    QString text;
};

/// Reads a command line; a failure is always Usage.
/// @param arguments with the program's name
Result<ParsedCommandLine> parseCommandLine(const QStringList& arguments);

} // namespace sdcardctl
