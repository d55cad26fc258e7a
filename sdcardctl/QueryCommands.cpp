#include <QJsonArray>

#include "CardService.h"
#include "CardStatus.h"
#include "Commands.h"
#include "LayoutNames.h"

namespace sdcardctl {

namespace {

// Without a mounted card the service reports 0 bytes for every directory.
void noteUnmounted(const CardService& service, Output& output)
{
    const auto properties = service.properties();
    if (properties && !properties->isMounted) {
        output.note(QStringLiteral("No card is mounted, so the answer is 0."));
    }
}

using SizeQuery = Result<qint64> (CardService::*)(const QString&) const;

ExitStatus printBytes(const Invocation& invocation, Output& output, SizeQuery query,
                      const QString& key)
{
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    const CardService service(*bus);
    const QString& id = invocation.arguments.first();
    const auto bytes = (service.*query)(id);
    if (!bytes) {
        return output.fail(bytes.failure());
    }
    if (output.isJson()) {
        output.line(QJsonObject{{"id", id}, {key, *bytes}});
    } else {
        output.line(QString::number(*bytes));
    }
    if (*bytes == 0) {
        noteUnmounted(service, output);
    }
    return ExitStatus::Success;
}

} // namespace

ExitStatus runList(const Invocation& invocation, Output& output)
{
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    const auto identifiers =
        knownIdentifiers(CardService(*bus), invocation.configFile, invocation.onlyWatched);
    if (!identifiers) {
        return output.fail(identifiers.failure());
    }
    if (output.isJson()) {
        output.line(QJsonObject{{"ids", QJsonArray::fromStringList(*identifiers)}});
    } else {
        for (const QString& identifier : *identifiers) {
            output.line(identifier);
        }
    }
    return ExitStatus::Success;
}

ExitStatus runPath(const Invocation& invocation, Output& output)
{
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    const QString& id = invocation.arguments.first();
    const auto path = CardService(*bus).directoryPath(id);
    if (!path) {
        return output.fail(path.failure());
    }
    if (output.isJson()) {
        output.line(QJsonObject{{"id", id}, {"path", *path}});
    } else {
        output.line(*path);
    }
    return ExitStatus::Success;
}

ExitStatus runSize(const Invocation& invocation, Output& output)
{
    return printBytes(invocation, output, &CardService::directorySize, QStringLiteral("size"));
}

ExitStatus runUsed(const Invocation& invocation, Output& output)
{
    return printBytes(invocation, output, &CardService::directoryUsed, QStringLiteral("used"));
}

ExitStatus runRefresh(const Invocation& invocation, Output& output)
{
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    const auto memState = CardService(*bus).refreshMemState();
    if (!memState) {
        return output.fail(memState.failure());
    }
    if (output.isJson()) {
        output.line(
            QJsonObject{{"memState", *memState}, {"memStateName", memStateName(*memState)}});
    } else {
        output.line(valueText(memStateName(*memState), *memState));
    }
    return ExitStatus::Success;
}

} // namespace sdcardctl
