#include "Commands.h"

namespace sdcardctl {

const std::array<Command, kCommandCount>& commands()
{
    // clang-format off
    static constexpr std::array<Command, kCommandCount> kCommands{{
        {"status",       "",      "Show the card's state and its directories",            0, 0, ConfigOption,                 runStatus},
        {"monitor",      "",      "Show signals and property changes until Ctrl-C",       0, 0, NoOption,                     runMonitor},
        {"list",         "",      "List the identifiers of the directories",              0, 0, ConfigOption | WatchedOption, runList},
        {"path",         "ID",    "Print the path of a directory or link",                1, 1, NoOption,                     runPath},
        {"size",         "ID",    "Print the bytes allotted to a directory",              1, 1, NoOption,                     runSize},
        {"used",         "ID",    "Print the bytes that a directory occupies",            1, 1, NoOption,                     runUsed},
        {"ensure",       "[ID]",  "Delete the oldest files of directories over their limit", 0, 1, NoOption,                  runEnsure},
        {"refresh",      "",      "Measure the memory state anew and print it",           0, 0, NoOption,                     runRefresh},
        {"insert",       "",      "Tell the service that a card was put in",              0, 0, NoOption,                     runInsert},
        {"remove",       "",      "Tell the service that the card was taken out",         0, 0, NoOption,                     runRemove},
        {"wait",         "STATE", "Wait until the card is in a state",                    1, 1, TimeoutOption,                runWait},
        {"check-config", "FILE",  "Report every problem of a media configuration",        1, 1, StrictOption,                 runCheckConfig},
    }};
    // clang-format on
    return kCommands;
}

} // namespace sdcardctl
