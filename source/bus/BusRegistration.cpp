#include "BusRegistration.h"

#include "BusNames.h"

namespace {

constexpr int kRetryMs = 500;

// Qt keeps a connection under its name, even a broken one, until disconnectFromBus().
const QString kConnectionName = QStringLiteral("sdcardd_restored_system");

} // namespace

BusRegistration::BusRegistration(QDBusConnection& bus, QObject* object, QObject* parent)
    : QObject(parent), mBus(bus), mObject(object)
{
    mRetry.setSingleShot(true);
    connect(&mRetry, &QTimer::timeout, this, &BusRegistration::reconnect);
}

bool BusRegistration::takeName()
{
    return mBus.registerService(BusNames::kService);
}

bool BusRegistration::exportObject()
{
    // libdbus sends this signal to itself.
    mBus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                 QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                 SLOT(onDisconnected()));
    return mBus.registerObject(BusNames::kCardObject, mObject, QDBusConnection::ExportAdaptors);
}

void BusRegistration::onDisconnected()
{
    mBus.unregisterObject(BusNames::kCardObject);
    reconnect();
}

void BusRegistration::reconnect()
{
    mRetry.stop();
    QDBusConnection::disconnectFromBus(kConnectionName);
    mBus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, kConnectionName);
    if (mBus.isConnected() && exportObject() && takeName()) {
        Q_EMIT restored();
    } else {
        mRetry.start(kRetryMs);
    }
}
