#pragma once

#include <array>
#include <optional>

#include <QByteArray>
#include <QSocketNotifier>

#include <csignal>

/// Carries SIGHUP and SIGTERM into the event loop. The signal handler writes one byte into a socket
/// pair, and a notifier watches the other end. Nobody reads the byte, so a request stays pending
/// until a state obeys it. Only one object may exist at a time, because a process has one handler.
class TerminationSignals
{
public:
    TerminationSignals() = default;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;
    ~TerminationSignals() = default;

    /// Creates the socket pair and the notifier (disabled), and installs the handler for both
    /// signals.
    /// @param notifierParent the notifier's parent object
    /// @return what failed and why; empty on success. Without a socket pair there is no notifier.
    /// After a failed action the following ones are not installed
    QByteArray setUp(QObject* notifierParent);
    /// Restores the saved actions, sets SIGSEGV to its default action and closes the socket pair.
    void tearDown();

    /// Reports a signal by activated(); null if it could not be created.
    QSocketNotifier* notifier() const { return mNotifier; }

private:
    static void handle(int signalNumber);

    /// [0] is the write end, [1] the read end.
    static std::array<int, 2> mSignalFd;

    QSocketNotifier* mNotifier = nullptr;
    std::optional<struct sigaction> mPreviousHupAction;
    std::optional<struct sigaction> mPreviousTermAction;
};
