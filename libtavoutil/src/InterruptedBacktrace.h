#pragma once

#ifdef __arm__

#include <sys/ucontext.h>

/// Fills @p frames with the return addresses from the code on that a signal has interrupted, as
/// backtrace() does from its caller on; the first one is this function's own. Returns how
/// many there are. Here the unwinder itself does not go on beyond a signal handler.
int interruptedBacktrace(const mcontext_t& interrupted, void** frames, int maxFrames);

#endif
