#pragma once

#include <QString>

namespace sdcardctl {

/// The exit statuses of the program; sdcardctl(1) documents the numbers.
enum class ExitStatus : int
{
    Success = 0,
    Failure = 1,          ///< anything that has no status of its own
    Usage = 2,            ///< the command line is wrong
    NotRunning = 3,       ///< the service's name has no owner on the bus
    NotPermitted = 4,     ///< the bus policy refuses the call to this user
    UnknownDirectory = 5, ///< no (watched) directory has the identifier
    TimedOut = 6,         ///< timeout: no wanted state or no reply
    NoBus = 7,            ///< the bus cannot be reached or was lost
    BadConfiguration = 8, ///< the checked configuration has problems
    OutputFailed = 9      ///< the results could not be written
};

/// Why a command failed, in words for its user.
struct Failure
{
    ExitStatus status;
    QString message;
};

} // namespace sdcardctl
