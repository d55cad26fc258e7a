#include <QCoreApplication>
#include <QTimer>

#include "CardStatus.h"
#include "CardWatcher.h"
#include "Commands.h"

namespace sdcardctl {

ExitStatus runWait(const Invocation& invocation, Output& output)
{
    const QString& name = invocation.arguments.first();
    const auto wanted = stateNamed(name);
    if (!wanted) {
        QStringList states;
        for (const PublishedValue& state : kStates) {
            states.append(state.word);
        }
        return output.fail(
            {ExitStatus::Usage,
             "There is no state \"" + name + "\". The states are " + states.join(", ") + "."});
    }
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }

    const auto end = [](ExitStatus status) {
        QCoreApplication::exit(static_cast<int>(status));
    };
    CardWatcher watcher(*bus);
    QString current = QStringLiteral("state is not known");
    QObject::connect(&watcher, &CardWatcher::runningChanged, [&](bool isRunning) {
        if (!isRunning) {
            current = QStringLiteral("the service is not running");
            output.note(QStringLiteral("The service is not running; waiting for it to start."));
        }
    });
    QObject::connect(&watcher, &CardWatcher::propertiesRead, [&](const CardProperties& card) {
        current = "state is " + valueText(stateName(card.state), card.state);
        if (card.state == static_cast<int>(*wanted)) {
            end(ExitStatus::Success);
        }
    });
    QObject::connect(&watcher, &CardWatcher::failed,
                     [&](const Failure& failure) { end(output.fail(failure)); });

    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, [&] {
        end(output.fail(
            {ExitStatus::TimedOut, "Timed out waiting for " + name + "; " + current + "."}));
    });
    if (invocation.timeoutMs) {
        timeout.start(*invocation.timeoutMs);
    }
    watcher.start();
    return static_cast<ExitStatus>(QCoreApplication::exec());
}

} // namespace sdcardctl
