#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QTimer>

/// Keeps the service on the bus: its name and its object. Where the bus goes away, it takes both
/// again as soon as there is a bus.
class BusRegistration : public QObject
{
    Q_OBJECT

public:
    /// @param bus is replaced where the bus comes back; must outlive this object
    /// @param object exported with its adaptors
    BusRegistration(QDBusConnection& bus, QObject* object, QObject* parent);

    /// Takes the service's name.
    /// @return false where somebody else has it or the bus refuses
    bool takeName();
    /// Exports the object and from now on follows the bus.
    bool exportObject();

Q_SIGNALS:
    /// Name and object are on the bus again.
    void restored();

private Q_SLOTS:
    void onDisconnected();

private:
    void reconnect();

    QDBusConnection& mBus;
    QObject* mObject;
    QTimer mRetry;
};
