#include "Commands.h"

namespace sdcardctl {

const std::array<Command, kCommandCount>& commands()
{
    constexpr bool kOptional = true;
    constexpr bool kRequired = false;
    // clang-format off
    static constexpr std::array<Command, kCommandCount> kCommands{{
        {"status",       "",          "Show the state of the card and its directories",          Argument::None,             kRequired, ConfigOption | LegendOption,  runStatus},
        {"monitor",      "",          "Show signals and property changes until Ctrl-C",          Argument::None,             kRequired, NoOption,                     runMonitor},
        {"list",         "",          "List the identifiers of the directories",                 Argument::None,             kRequired, ConfigOption | WatchedOption, runList},
        {"path",         "ID",        "Print the path of a directory or link",                   Argument::Directory,        kRequired, NoOption,                     runPath},
        {"size",         "ID",        "Print the bytes allotted to a directory",                 Argument::Directory,        kRequired, NoOption,                     runSize},
        {"used",         "ID",        "Print the bytes that a directory occupies",               Argument::Directory,        kRequired, NoOption,                     runUsed},
        {"ensure",       "[ID]",      "Delete the oldest files of directories over their limit", Argument::WatchedDirectory, kOptional, NoOption,                     runEnsure},
        {"refresh",      "",          "Measure the memory state again and print it",             Argument::None,             kRequired, NoOption,                     runRefresh},
        {"insert",       "",          "Announce an inserted card to the service",                Argument::None,             kRequired, NoOption,                     runInsert},
        {"remove",       "",          "Announce a removed card to the service",                  Argument::None,             kRequired, NoOption,                     runRemove},
        {"wait",         "STATE",     "Wait until the card is in a state",                       Argument::State,            kRequired, TimeoutOption,                runWait},
        {"check-config", "FILE",      "Report every problem of a media configuration",           Argument::File,             kRequired, StrictOption | LegendOption,  runCheckConfig},
        {"help",         "[COMMAND]", "Show the help of a command",                              Argument::Command,          kOptional, NoOption,                     runHelp},
    }};
    // clang-format on
    return kCommands;
}

} // namespace sdcardctl
