#pragma once

#include <QString>

/// Installs the process's handling of SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT. It reports a
/// crash under @p name (signal, fault address, backtrace as offsets for addr2line) to the system
/// log, or to standard error if there is no system log. Then the signal's default action ends the
/// process, with the same exit status and core dump as without the handler.
///
/// Crashes in all threads are reported. The calling thread gets an alternate signal stack. In other
/// threads a stack overflow is reported only with a tavoutil::AlternateSignalStack.
///
/// Call it once, from the main thread, before other threads exist.
/// @return 0, or -1 when the handling could not be installed; the reason is in the system log
int installSignalHandler(const QString& name);
