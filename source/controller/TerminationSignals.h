#pragma once

#include <array>
#include <optional>

#include <QByteArray>
#include <QSocketNotifier>

#include <csignal>

/// Carries SIGHUP and SIGTERM into the event loop: the signal handler writes one byte into a socket
/// pair, whose read side a notifier watches. Nobody reads the byte, so that a request stays pending
/// until a state obeys it. There is one object at a time, as there is one handler for a process.
class TerminationSignals
{
public:
    TerminationSignals() = default;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;
    ~TerminationSignals() = default;

    /// Creates the socket pair and the notifier, which does not report yet, and installs the
    /// handler for both signals.
    /// @param notifierParent the notifier's parent object
    /// @return what failed and why; empty on success. Without a socket pair there is no notifier,
    /// and the actions that follow a failed one are not installed
    QByteArray setUp(QObject* notifierParent);
    /// Restores the actions that were saved, sets SIGSEGV to its default action and closes the
    /// socket pair.
    void tearDown();

    /// Reports by activated() that a signal has arrived; null where it could not be created.
    QSocketNotifier* notifier() const { return mNotifier; }

private:
    static void handle(int signalNumber);

    /// [0] is written, [1] is read.
    static std::array<int, 2> mSignalFd;

    QSocketNotifier* mNotifier = nullptr;
    std::optional<struct sigaction> mPreviousHupAction;
    std::optional<struct sigaction> mPreviousTermAction;
};
