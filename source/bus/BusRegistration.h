#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QTimer>

/// Keeps the service's name and object on the bus. When a lost bus comes back, registers both
/// again.
class BusRegistration : public QObject
{
    Q_OBJECT

public:
    /// @param bus is replaced when the bus comes back; must outlive this object
    /// @param object exported with its adaptors
    BusRegistration(QDBusConnection& bus, QObject* object, QObject* parent);

    /// Requests the service's name.
    /// @return false if another process owns it or the bus refuses it
    bool takeName();
    /// Exports the object and starts to watch the bus.
    bool exportObject();

Q_SIGNALS:
    /// Name and object are registered again.
    void restored();

private Q_SLOTS:
    void onDisconnected();

private:
    void reconnect();

    QDBusConnection& mBus;
    QObject* mObject;
    QTimer mRetry;
};
