#pragma once

#include <QString>

/// Installs the process's handling of SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT: a crash is
/// reported under @p name (signal, fault address, backtrace as offsets for addr2line) to the system
/// log, or to standard error where there is none. Then the signal's default action ends the
/// process, with the exit status and the core dump that it would have had without this.
///
/// Crashes in all threads are reported. Only the calling thread gets an alternate stack, though: a
/// stack overflow in another thread ends the process with SIGSEGV but without a report, unless that
/// thread has called sigaltstack() itself.
///
/// To be called once, from the main thread and before there are others.
/// @return 0, or -1 when the handling could not be installed; the reason is in the system log
int installSignalHandler(const QString& name);
