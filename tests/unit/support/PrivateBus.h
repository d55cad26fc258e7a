#pragma once

#include <memory>

#include <QDBusConnection>
#include <QProcess>
#include <QString>
#include <QTemporaryFile>

/// A message bus of the test, and the test's connection to it. Ends with the object.
class PrivateBus
{
public:
    /// @param policy further rules for everyone, as XML elements of the bus configuration
    explicit PrivateBus(const QString& policy = QString());
    Q_DISABLE_COPY_MOVE(PrivateBus)
    ~PrivateBus();

    /// Empty if the bus did not start.
    QString address() const { return mAddress; }
    QDBusConnection connection() const { return QDBusConnection(mAddress); }
    /// Ends the bus under its connections.
    void stop();

private:
    QTemporaryFile mConfiguration;
    QProcess mDaemon;
    QString mAddress;
};
