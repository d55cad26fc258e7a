#pragma once

#include <array>

#include "CommandLine.h"

namespace sdcardctl {

constexpr std::size_t kCommandCount = 13;

/// All commands in the order in which the help shows them.
const std::array<Command, kCommandCount>& commands();

// The implementation of each command; sdcardctl(1) documents what it does and prints.
ExitStatus runStatus(const Invocation& invocation, Output& output);
ExitStatus runMonitor(const Invocation& invocation, Output& output);
ExitStatus runList(const Invocation& invocation, Output& output);
ExitStatus runPath(const Invocation& invocation, Output& output);
ExitStatus runSize(const Invocation& invocation, Output& output);
ExitStatus runUsed(const Invocation& invocation, Output& output);
ExitStatus runEnsure(const Invocation& invocation, Output& output);
ExitStatus runRefresh(const Invocation& invocation, Output& output);
ExitStatus runInsert(const Invocation& invocation, Output& output);
ExitStatus runRemove(const Invocation& invocation, Output& output);
ExitStatus runWait(const Invocation& invocation, Output& output);
ExitStatus runCheckConfig(const Invocation& invocation, Output& output);
ExitStatus runHelp(const Invocation& invocation, Output& output);

} // namespace sdcardctl
