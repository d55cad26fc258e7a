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

// Prints one line for each event, with the time at which this program detected it.
class Reporter
{
public:
    explicit Reporter(Output& output) : mOutput(output) {}

    void reportRunning(bool isRunning)
    {
        mKnown.reset();
        if (mOutput.isJson()) {
            report({{"event", "service"}, {"running", isRunning}});
        } else {
            report(isRunning
                       ? mOutput.coloured(Colour::Good, QStringLiteral("service is running"))
                       : mOutput.coloured(Colour::Bad, QStringLiteral("service is not running")));
        }
    }

    void reportSignal(const QString& name, std::optional<int> argument)
    {
        if (mOutput.isJson()) {
            QJsonObject event{{"event", "signal"}, {"name", name}};
            if (argument) {
                event.insert("value", *argument);
            }
            report(event);
            return;
        }
        const QString value = argument ? " " + argumentText(name, *argument) : QString();
        report(mOutput.coloured(Colour::Event, name) + value);
    }

    void reportChanges(const CardProperties& now)
    {
        reportChange("State", &CardProperties::state, now,
                     [](int value) { return valueText(stateName(value), value); });
        reportChange("Transition", &CardProperties::transition, now,
                     [](int value) { return valueText(transitionName(value), value); });
        reportChange("MemState", &CardProperties::memState, now, memStateText);
        reportChange("MemLevel", &CardProperties::memLevel, now, memLevelText);
        reportChange("IsMounted", &CardProperties::isMounted, now,
                     [](bool value) { return QVariant(value).toString(); });
        reportChange("MountPoint", &CardProperties::mountPoint, now,
                     [](const QString& path) { return path; });
        mKnown = now;
    }

private:
    template <typename Value, typename Text>
    void reportChange(const char* name, Value CardProperties::*property, const CardProperties& now,
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
            report(event);
            return;
        }
        const QString before = mKnown ? text((*mKnown).*property) + " -> " : QString();
        report(QStringLiteral("  ") + name + ": " + before + text(value));
    }

    void report(QJsonObject event)
    {
        event.insert("time",
                     QDateTime::currentDateTime().toOffsetFromUtc(0).toString(Qt::ISODateWithMs));
        mOutput.line(event);
        endWithOutput();
    }

    void report(const QString& text)
    {
        mOutput.line(
            QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")) +
            "  " + text);
        endWithOutput();
    }

    void endWithOutput() const
    {
        if (mOutput.isBroken()) {
            QCoreApplication::exit(static_cast<int>(ExitStatus::OutputFailed));
        }
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
    Reporter reporter(output);
    CardWatcher watcher(*bus);
    QObject::connect(&watcher, &CardWatcher::runningChanged,
                     [&reporter](bool isRunning) { reporter.reportRunning(isRunning); });
    QObject::connect(&watcher, &CardWatcher::signalReceived,
                     [&reporter](const QString& name, std::optional<int> argument) {
                         reporter.reportSignal(name, argument);
                     });
    QObject::connect(&watcher, &CardWatcher::propertiesRead,
                     [&reporter](const CardProperties& now) { reporter.reportChanges(now); });
    QObject::connect(&watcher, &CardWatcher::failed, [&output](const Failure& failure) {
        QCoreApplication::exit(static_cast<int>(output.fail(failure)));
    });
    watcher.start();
    return static_cast<ExitStatus>(QCoreApplication::exec());
}

} // namespace sdcardctl
