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

    /// Reads the answer of the bus; a failure where a property is missing or of another type.
    static Result<CardProperties> fromMap(const QVariantMap& map);
};

/// The bus that the service is on: the one at @p address, the system bus where that is empty.
Result<QDBusConnection> connectToBus(const QString& address);

/// The failure that an error reply stands for, in words for the user.
Failure failureOf(const QDBusError& error);

/// Calls of the service that wait for its answer. Directories are named by their identifiers in the
/// media configuration. Each call fails with NotRunning, NotPermitted, TimedOut or Failure; those
/// that take an identifier also with UnknownDirectory.
class CardService
{
public:
    explicit CardService(QDBusConnection bus);

    /// Asks for all properties without waiting; the answer is a map for CardProperties::fromMap().
    static QDBusPendingCall requestProperties(const QDBusConnection& bus);

    Result<CardProperties> properties() const;
    /// Absolute path of a directory or link.
    Result<QString> directoryPath(const QString& id) const;
    /// Bytes allotted to a directory; 0 while no card is mounted.
    Result<qint64> directorySize(const QString& id) const;
    /// Bytes that a directory occupies, for an empty @p id the whole card; 0 as above.
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
