#pragma once

#include <optional>

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QObject>
#include <QTimer>

#include "CardService.h"
#include "SDCard1Proxy.h"

class QDBusPendingCallWatcher;

namespace sdcardctl {

/// Follows the service over its restarts. The service does not announce property changes, and some
/// properties have no signal. So the watcher reads all of them after every signal and
/// kReadIntervalMs after the last reading.
class CardWatcher : public QObject
{
    Q_OBJECT

public:
    static constexpr int kReadIntervalMs = 250;

    explicit CardWatcher(const QDBusConnection& bus, QObject* parent = nullptr);

    /// Starts the watcher; its reports come from the event loop.
    void start();

Q_SIGNALS:
    /// Whether the service runs. Emitted at the start and after each change.
    void runningChanged(bool isRunning);
    /// A signal of the service, with its argument if it has one.
    void signalReceived(const QString& name, std::optional<int> argument);
    /// The properties, after each reading.
    void propertiesRead(const sdcardctl::CardProperties& properties);
    /// The last report.
    void failed(const sdcardctl::Failure& failure);

private Q_SLOTS:
    void busDisconnected();

private:
    void connectSignals();
    void setRunning(bool isRunning);
    void receive(const char* name, std::optional<int> argument = std::nullopt);
    void readProperties();
    void finishReading(QDBusPendingCallWatcher* reading);

    QDBusConnection mBus;
    tavo::SDCard1 mCard;
    QDBusServiceWatcher mOwner;
    QTimer mReadTimer;
    std::optional<bool> mIsRunning;
    bool mIsReading = false;
    bool mReadAgain = false;
};

} // namespace sdcardctl
