#include "CardService.h"

#include <limits>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingReply>

#include "BusNames.h"
#include "BusPolicy.h"
#include "SDCard1Proxy.h"
#include "SDCardController1Proxy.h"

namespace sdcardctl {

namespace {

const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
constexpr int kWaitForEver = std::numeric_limits<int>::max();

template <typename Value>
bool read(const QVariantMap& map, const char* name, Value& value)
{
    const QVariant variant = map.value(QString::fromLatin1(name));
    value = variant.value<Value>();
    return variant.userType() == qMetaTypeId<Value>();
}

Failure failureOfCall(const QDBusConnection& bus, const QDBusError& error)
{
    // A service that ends during a call gives the same error reply as one that is too slow.
    if (error.type() == QDBusError::NoReply && bus.isConnected() &&
        !bus.interface()->isServiceRegistered(BusNames::kService)) {
        return {ExitStatus::NotRunning,
                QStringLiteral("The service ended before it answered. Start sdcardd again.")};
    }
    return failureOf(error);
}

template <typename Value>
Result<Value> answerOf(const QDBusConnection& bus, QDBusPendingReply<Value> reply)
{
    reply.waitForFinished();
    if (reply.isError()) {
        return failureOfCall(bus, reply.error());
    }
    return reply.value();
}

Result<bool> doneOf(const QDBusConnection& bus, QDBusPendingReply<> reply)
{
    reply.waitForFinished();
    if (reply.isError()) {
        return failureOfCall(bus, reply.error());
    }
    return true;
}

template <typename Proxy>
Proxy proxyOn(const QDBusConnection& bus)
{
    return Proxy(BusNames::kService, BusNames::kCardObject, bus);
}

} // namespace

Result<CardProperties> CardProperties::fromMap(const QVariantMap& map)
{
    CardProperties properties;
    const bool complete =
        read(map, "State", properties.state) && read(map, "Transition", properties.transition) &&
        read(map, "MemState", properties.memState) && read(map, "MemLevel", properties.memLevel) &&
        read(map, "MountPoint", properties.mountPoint) &&
        read(map, "IsMounted", properties.isMounted);
    if (!complete) {
        return Failure{ExitStatus::Failure,
                       QStringLiteral("The service lacks a property. Its version differs from the "
                                      "version of this program.")};
    }
    return properties;
}

Result<QDBusConnection> connectToBus(const QString& address)
{
    const QDBusConnection bus = address.isEmpty() ? QDBusConnection::systemBus()
                                                  : QDBusConnection::connectToBus(address, address);
    if (!bus.isConnected()) {
        return Failure{ExitStatus::NoBus,
                       "The message bus cannot be reached: " + bus.lastError().message() +
                           ". Start the bus, or select another one with --bus."};
    }
    return bus;
}

Failure failureOf(const QDBusError& error)
{
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
        return {ExitStatus::NotRunning,
                "The service is not running: " + BusNames::kService +
                    " has no owner on the bus. Start sdcardd, or select another bus with --bus."};
    case QDBusError::AccessDenied:
        return {ExitStatus::NotPermitted, permissionDenied(controlGroups())};
    case QDBusError::InvalidArgs:
        return {ExitStatus::UnknownDirectory,
                error.message() + ". \"sdcardctl list\" lists the identifiers."};
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut:
        return {ExitStatus::TimedOut,
                QStringLiteral("Timed out waiting for an answer. The service may be unmounting the "
                               "card or deleting files; try again later.")};
    case QDBusError::Disconnected:
        return {ExitStatus::NoBus, QStringLiteral("The connection to the message bus is lost.")};
    default:
        return {ExitStatus::Failure, "The service answered: " + error.message()};
    }
}

CardService::CardService(QDBusConnection bus) : mBus(std::move(bus)) {}

QDBusPendingCall CardService::requestProperties(const QDBusConnection& bus)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        BusNames::kService, BusNames::kCardObject, kPropertiesInterface, QStringLiteral("GetAll"));
    call << BusNames::kCardInterface;
    return bus.asyncCall(call);
}

Result<CardProperties> CardService::properties() const
{
    const auto answer = answerOf<QVariantMap>(mBus, requestProperties(mBus));
    return answer ? CardProperties::fromMap(*answer) : answer.failure();
}

Result<QString> CardService::directoryPath(const QString& id) const
{
    return answerOf(mBus, proxyOn<tavo::SDCard1>(mBus).GetDirPath(id));
}

Result<qint64> CardService::directorySize(const QString& id) const
{
    return answerOf(mBus, proxyOn<tavo::SDCard1>(mBus).GetDirSize(id));
}

Result<qint64> CardService::directoryUsed(const QString& id) const
{
    auto card = proxyOn<tavo::SDCard1>(mBus);
    card.setTimeout(kWaitForEver);
    return answerOf(mBus, card.getDirUsed(id));
}

Result<bool> CardService::ensureDirectorySize(const QString& id) const
{
    auto card = proxyOn<tavo::SDCard1>(mBus);
    card.setTimeout(kWaitForEver);
    return doneOf(mBus, card.EnsureDirSize(id));
}

Result<int> CardService::refreshMemState() const
{
    return answerOf(mBus, proxyOn<tavo::SDCard1>(mBus).RefreshMemState());
}

Result<bool> CardService::announceInsertion() const
{
    return doneOf(mBus, proxyOn<tavo::SDCardController1>(mBus).InsertCard());
}

Result<bool> CardService::announceRemoval() const
{
    return doneOf(mBus, proxyOn<tavo::SDCardController1>(mBus).RemoveCard());
}

} // namespace sdcardctl
