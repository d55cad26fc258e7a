#include <QCoreApplication>
#include <QDateTime>

#include "CardStatus.h"
#include "CardWatcher.h"
#include "Commands.h"
#include "Interrupt.h"

namespace sdcardctl {

namespace {

QString memStateText(int value)
{
    return valueText(memStateName(value), value);
}

QString memLevelText(int percent)
{
    return QString::number(percent) + " %";
}

QString argumentText(const QString& signal, int argument)
{
    return signal == QLatin1String("MemStateChanged") ? memStateText(argument)
                                                      : memLevelText(argument);
}

// Tells what happens, one line each with the time at which it was noticed.
class Teller
{
public:
    explicit Teller(Output& output) : mOutput(output) {}

    void tellRunning(bool isRunning)
    {
        mKnown.reset();
        if (mOutput.isJson()) {
            tell({{"event", "service"}, {"running", isRunning}});
        } else {
            tell(isRunning
                     ? mOutput.coloured(Colour::Good, QStringLiteral("service is running"))
                     : mOutput.coloured(Colour::Bad, QStringLiteral("service is not running")));
        }
    }

    void tellSignal(const QString& name, std::optional<int> argument)
    {
        if (mOutput.isJson()) {
            QJsonObject event{{"event", "signal"}, {"name", name}};
            if (argument) {
                event.insert("value", *argument);
            }
            tell(event);
            return;
        }
        const QString value = argument ? " " + argumentText(name, *argument) : QString();
        tell(mOutput.coloured(Colour::Event, name) + value);
    }

    void tellChanges(const CardProperties& now)
    {
        tellChange("State", &CardProperties::state, now,
                   [](int value) { return valueText(stateName(value), value); });
        tellChange("Transition", &CardProperties::transition, now,
                   [](int value) { return valueText(transitionName(value), value); });
        tellChange("MemState", &CardProperties::memState, now, memStateText);
        tellChange("MemLevel", &CardProperties::memLevel, now, memLevelText);
        tellChange("IsMounted", &CardProperties::isMounted, now,
                   [](bool value) { return QVariant(value).toString(); });
        tellChange("MountPoint", &CardProperties::mountPoint, now,
                   [](const QString& path) { return path; });
        mKnown = now;
    }

private:
    template <typename Value, typename Text>
    void tellChange(const char* name, Value CardProperties::*property, const CardProperties& now,
                    Text text)
    {
        const Value& value = now.*property;
        if (mKnown && (*mKnown).*property == value) {
            return;
        }
        if (mOutput.isJson()) {
            QJsonObject event{{"event", "property"}, {"name", name}, {"value", value}};
            if (mKnown) {
                event.insert("previous", (*mKnown).*property);
            }
            tell(event);
            return;
        }
        const QString before = mKnown ? text((*mKnown).*property) + " -> " : QString();
        tell(QStringLiteral("  ") + name + ": " + before + text(value));
    }

    void tell(QJsonObject event)
    {
        event.insert("time",
                     QDateTime::currentDateTime().toOffsetFromUtc(0).toString(Qt::ISODateWithMs));
        mOutput.line(event);
    }

    void tell(const QString& text)
    {
        mOutput.line(QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss.zzz")) + "  " +
                     text);
    }

    Output& mOutput;
    std::optional<CardProperties> mKnown;
};

} // namespace

ExitStatus runMonitor(const Invocation& invocation, Output& output)
{
    const Interrupt interrupt;
    QObject::connect(&interrupt, &Interrupt::requested,
                     [] { QCoreApplication::exit(static_cast<int>(ExitStatus::Success)); });
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    Teller teller(output);
    CardWatcher watcher(*bus);
    QObject::connect(&watcher, &CardWatcher::runningChanged,
                     [&teller](bool isRunning) { teller.tellRunning(isRunning); });
    QObject::connect(&watcher, &CardWatcher::signalReceived,
                     [&teller](const QString& name, std::optional<int> argument) {
                         teller.tellSignal(name, argument);
                     });
    QObject::connect(&watcher, &CardWatcher::propertiesRead,
                     [&teller](const CardProperties& now) { teller.tellChanges(now); });
    QObject::connect(&watcher, &CardWatcher::failed, [&output](const Failure& failure) {
        QCoreApplication::exit(static_cast<int>(output.fail(failure)));
    });
    watcher.start();
    return static_cast<ExitStatus>(QCoreApplication::exec());
}

} // namespace sdcardctl
