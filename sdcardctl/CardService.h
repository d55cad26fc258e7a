#pragma once

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusPendingCall>
#include <QString>
#include <QVariantMap>

#include "Result.h"

namespace sdcardctl {

/// The service's properties at one moment.
struct CardProperties
{
    int state = 0;      ///< of the enumeration State; the next two likewise
    int transition = 0; ///< Transition
    int memState = 0;   ///< MemState
    int memLevel = 0;   ///< used share of the card in percent
    QString mountPoint;
    bool isMounted = false;

    /// Reads the bus reply; fails if a property is missing or has another type.
    static Result<CardProperties> fromMap(const QVariantMap& map);
};

/// The bus of the service: the one at @p address, or the system bus if that is empty.
Result<QDBusConnection> connectToBus(const QString& address);

/// The failure for an error reply, in words for the user.
Failure failureOf(const QDBusError& error);

/// Calls of the service that wait for its reply. Directories are named by their identifiers in the
/// media configuration. Each call fails with NotRunning, NotPermitted, TimedOut or Failure. Calls
/// with an identifier may also fail with UnknownDirectory.
class CardService
{
public:
    explicit CardService(QDBusConnection bus);

    /// Requests all properties without waiting; the reply is a map for CardProperties::fromMap().
    static QDBusPendingCall requestProperties(const QDBusConnection& bus);

    Result<CardProperties> properties() const;
    /// Absolute path of a directory or link.
    Result<QString> directoryPath(const QString& id) const;
    /// Bytes allotted to a directory; 0 while no card is mounted.
    Result<qint64> directorySize(const QString& id) const;
    /// Bytes that a directory occupies, or the whole card if @p id is empty; 0 as above.
    Result<qint64> directoryUsed(const QString& id) const;
    /// Deletes the oldest files of a watched directory until it is within its share; of all watched
    /// directories if @p id is empty. Waits without a time limit.
    Result<bool> ensureDirectorySize(const QString& id) const;
    /// Measures memory state and level again.
    /// @return the memory state, of the enumeration MemState
    Result<int> refreshMemState() const;
    /// Announces an inserted or removed card.
    Result<bool> announceInsertion() const;
    Result<bool> announceRemoval() const;

private:
    QDBusConnection mBus;
};

} // namespace sdcardctl
