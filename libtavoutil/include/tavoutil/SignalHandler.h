#pragma once

#include <QString>

/// Installs the process's handling of SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT: a crash is
/// reported under @p name (signal, fault address, backtrace as offsets for addr2line) to the system
/// log, or to standard error where there is none. Then the signal's default action ends the
/// process, with the exit status and the core dump that it would have had without this.
///
/// Crashes in all threads are reported. The calling thread gets an alternate signal stack; a stack
/// overflow in another thread is reported only if that thread has a tavoutil::AlternateSignalStack.
///
/// To be called once, from the main thread and before there are others.
/// @return 0, or -1 when the handling could not be installed; the reason is in the system log
int installSignalHandler(const QString& name);
