#include "CardWatcher.h"

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include "BusNames.h"

namespace sdcardctl {

CardWatcher::CardWatcher(const QDBusConnection& bus, QObject* parent)
    : QObject(parent), mBus(bus), mCard(BusNames::kService, BusNames::kCardObject, bus),
      mOwner(BusNames::kService, bus)
{
    mReadTimer.setSingleShot(true);
    mReadTimer.setInterval(kReadIntervalMs);
    connect(&mReadTimer, &QTimer::timeout, this, &CardWatcher::readProperties);
    connect(&mOwner, &QDBusServiceWatcher::serviceRegistered, this, [this] { setRunning(true); });
    connect(&mOwner, &QDBusServiceWatcher::serviceUnregistered, this,
            [this] { setRunning(false); });
    connectSignals();
}

void CardWatcher::connectSignals()
{
    using Card = tavo::SDCard1;
    struct Event
    {
        const char* name;
        void (Card::*signal)();
    };
    for (const Event event : {Event{"CardInserted", &Card::CardInserted},
                              {"CardRemoved", &Card::CardRemoved},
                              {"CardNotMountable", &Card::CardNotMountable},
                              {"CardCorrupt", &Card::CardCorrupt},
                              {"CardMounted", &Card::CardMounted},
                              {"CardUnmounted", &Card::CardUnmounted},
                              {"EjectPressed", &Card::EjectPressed}}) {
        connect(&mCard, event.signal, this, [this, event] { receive(event.name); });
    }
    connect(&mCard, &Card::MemStateChanged, this,
            [this](int state) { receive("MemStateChanged", state); });
    connect(&mCard, &Card::MemLevelChanged, this,
            [this](int level) { receive("MemLevelChanged", level); });
    mBus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                 QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                 SLOT(busDisconnected()));
}

void CardWatcher::start()
{
    const QDBusPendingReply<bool> reply =
        mBus.interface()->asyncCall(QStringLiteral("NameHasOwner"), BusNames::kService);
    auto* const asking = new QDBusPendingCallWatcher(reply, this);
    connect(asking, &QDBusPendingCallWatcher::finished, this, [this, asking] {
        asking->deleteLater();
        const QDBusPendingReply<bool> answer = *asking;
        if (answer.isError()) {
            Q_EMIT failed(failureOf(answer.error()));
        } else if (!mIsRunning) {
            setRunning(answer.value());
        }
    });
}

void CardWatcher::setRunning(bool isRunning)
{
    if (mIsRunning != isRunning) {
        mIsRunning = isRunning;
        Q_EMIT runningChanged(isRunning);
    }
    if (isRunning) {
        readProperties();
    } else {
        mReadTimer.stop();
    }
}

void CardWatcher::receive(const char* name, std::optional<int> argument)
{
    Q_EMIT signalReceived(QString::fromLatin1(name), argument);
    readProperties();
}

void CardWatcher::readProperties()
{
    // One reading at a time: the service may be busy for a long time.
    mReadTimer.stop();
    if (mIsReading) {
        mReadAgain = true;
        return;
    }
    mIsReading = true;
    auto* const reading = new QDBusPendingCallWatcher(CardService::requestProperties(mBus), this);
    connect(reading, &QDBusPendingCallWatcher::finished, this, &CardWatcher::finishReading);
}

void CardWatcher::finishReading(QDBusPendingCallWatcher* reading)
{
    reading->deleteLater();
    mIsReading = false;
    const QDBusPendingReply<QVariantMap> reply = *reading;
    // Other errors are temporary: the service is starting, ending or busy.
    if (!reply.isError()) {
        const auto properties = CardProperties::fromMap(reply.value());
        if (!properties) {
            Q_EMIT failed(properties.failure());
            return;
        }
        Q_EMIT propertiesRead(*properties);
    } else if (reply.error().type() == QDBusError::AccessDenied) {
        Q_EMIT failed(failureOf(reply.error()));
        return;
    }
    if (mReadAgain) {
        mReadAgain = false;
        readProperties();
    } else if (mIsRunning.value_or(false)) {
        mReadTimer.start();
    }
}

void CardWatcher::busDisconnected()
{
    Q_EMIT failed(
        {ExitStatus::NoBus, QStringLiteral("The connection to the message bus is lost.")});
}

} // namespace sdcardctl
