#pragma once

#ifdef __arm__

#include <sys/ucontext.h>

/// Fills @p frames as backtrace() does, but from the code that a signal has interrupted: on ARM,
/// backtrace() does not get past a signal handler. The first address is this function's own.
/// @return the number of addresses
int interruptedBacktrace(const mcontext_t& interrupted, void** frames, int maxFrames);

#endif
