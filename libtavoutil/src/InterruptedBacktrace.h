#pragma once

#ifdef __arm__

#include <sys/ucontext.h>

/// Like backtrace(), but starts at the code that a signal interrupted: on ARM, backtrace() stops at
/// a signal handler. The first address is this function's own.
/// @return the number of addresses
int interruptedBacktrace(const mcontext_t& interrupted, void** frames, int maxFrames);

#endif
