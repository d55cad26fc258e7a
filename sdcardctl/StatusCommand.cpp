#include <algorithm>

#include <QJsonArray>

#include "CardService.h"
#include "CardStatus.h"
#include "Commands.h"
#include "LayoutNames.h"

namespace sdcardctl {

namespace {

constexpr int kBarWidth = 20;
constexpr int kLabelWidth = 17;
constexpr int kBytesWidth = 10;
constexpr int kShareWidth = 8;
constexpr int kColumnGap = 2;
constexpr qreal kNearlyFull = 0.8;

// A configured directory with the values from the service.
struct DirectoryStatus
{
    DirInfo configured;
    bool isKnown = false; ///< false if the service uses another configuration
    QString path;
    qint64 size = 0;
    qint64 used = 0;
};

Result<DirectoryStatus> statusOf(const DirInfo& directory, const CardService& service)
{
    DirectoryStatus status;
    status.configured = directory;
    const auto path = service.directoryPath(directory.name);
    if (!path) {
        if (path.failure().status == ExitStatus::UnknownDirectory) {
            return status;
        }
        return path.failure();
    }
    const auto size = service.directorySize(directory.name);
    if (!size) {
        return size.failure();
    }
    const auto used = service.directoryUsed(directory.name);
    if (!used) {
        return used.failure();
    }
    status.isKnown = true;
    status.path = *path;
    status.size = *size;
    status.used = *used;
    return status;
}

Result<QVector<DirectoryStatus>> statusOf(const QVector<DirInfo>& directories,
                                          const CardService& service)
{
    QVector<DirectoryStatus> all;
    for (const DirInfo& directory : directories) {
        const auto status = statusOf(directory, service);
        if (!status) {
            return status.failure();
        }
        all.append(*status);
    }
    return all;
}

QJsonObject toJson(const CardProperties& card)
{
    return {{"state", card.state},           {"stateName", stateName(card.state)},
            {"transition", card.transition}, {"transitionName", transitionName(card.transition)},
            {"memState", card.memState},     {"memStateName", memStateName(card.memState)},
            {"memLevel", card.memLevel},     {"mountPoint", card.mountPoint},
            {"isMounted", card.isMounted}};
}

QJsonArray toJson(const QVector<DirectoryStatus>& directories)
{
    QJsonArray all;
    for (const DirectoryStatus& directory : directories) {
        QJsonObject object{{"id", directory.configured.name},
                           {"share", directory.configured.size},
                           {"watched", directory.configured.capacitywatch},
                           {"known", directory.isKnown}};
        if (directory.isKnown) {
            object.insert("path", directory.path);
            object.insert("size", directory.size);
            object.insert("used", directory.used);
        }
        all.append(object);
    }
    return all;
}

Colour colourOf(int state)
{
    switch (static_cast<State>(state)) {
    case State::Mounted:
    case State::Unmounted:
        return Colour::Good;
    case State::NotMountable:
    case State::Corrupted:
        return Colour::Bad;
    default:
        return Colour::Busy;
    }
}

void printField(Output& output, const char* label, const QString& text)
{
    output.line(QString::fromLatin1(label).leftJustified(kLabelWidth) + text);
}

void printCard(Output& output, const CardProperties& card)
{
    printField(output, "State",
               output.coloured(colourOf(card.state), valueText(stateName(card.state), card.state)));
    printField(output, "Last transition",
               valueText(transitionName(card.transition), card.transition));
    printField(output, "Memory state", valueText(memStateName(card.memState), card.memState));
    printField(output, "Memory level", QString::number(card.memLevel) + " %");
    printField(output, "Mount point",
               card.mountPoint + (card.isMounted ? QString() : QStringLiteral(" (not mounted)")));
}

QString usageText(const Output& output, const DirectoryStatus& directory)
{
    const qreal share = static_cast<qreal>(directory.used) / static_cast<qreal>(directory.size);
    Colour colour = Colour::Good;
    if (share > 1) {
        colour = Colour::Bad;
    } else if (share > kNearlyFull) {
        colour = Colour::Busy;
    }
    const QString percent = QString::number(qRound64(share * 100)) + " %";
    return output.coloured(colour, barText(share, kBarWidth)) + percent.rightJustified(kShareWidth);
}

void printDirectories(Output& output, const QVector<DirectoryStatus>& directories, bool hasLegend)
{
    const QString heading = QStringLiteral("Directory");
    int nameWidth = hasLegend ? heading.size() : 0;
    bool isUseShown = false;
    for (const DirectoryStatus& directory : directories) {
        nameWidth = std::max(nameWidth, directory.configured.name.size());
        isUseShown = isUseShown || directory.size > 0;
    }
    const QString gap(kColumnGap, ' ');
    if (hasLegend) {
        const QString use = QStringLiteral("Used").rightJustified(kBytesWidth) + " of" +
                            QStringLiteral("Allotted").rightJustified(kBytesWidth) + gap +
                            QString(kBarWidth + 2 + kShareWidth, ' ') + gap;
        output.line(heading.leftJustified(nameWidth) + gap +
                    QStringLiteral("Share").rightJustified(kShareWidth) + gap +
                    (isUseShown ? use : QString()) + "Path");
    }
    for (const DirectoryStatus& directory : directories) {
        QString line = directory.configured.name.leftJustified(nameWidth) + gap +
                       percentText(directory.configured.size).rightJustified(kShareWidth) + gap;
        if (!directory.isKnown) {
            line += QStringLiteral("not known to the service: does it use another configuration?");
        } else if (directory.size <= 0) {
            line += directory.path;
        } else {
            line += bytesText(directory.used).rightJustified(kBytesWidth) + " of" +
                    bytesText(directory.size).rightJustified(kBytesWidth) + gap +
                    usageText(output, directory) + gap + directory.path;
        }
        if (directory.configured.capacitywatch) {
            line += QStringLiteral(" (watched)");
        }
        output.line(line);
    }
}

} // namespace

ExitStatus runStatus(const Invocation& invocation, Output& output)
{
    const auto bus = connectToBus(invocation.busAddress);
    if (!bus) {
        return output.fail(bus.failure());
    }
    const CardService service(*bus);
    const auto card = service.properties();
    if (!card) {
        return output.fail(card.failure());
    }
    const auto configured = configuredDirectories(invocation.configFile);
    Result<QVector<DirectoryStatus>> directories{QVector<DirectoryStatus>()};
    if (configured) {
        directories = statusOf(*configured, service);
        if (!directories) {
            return output.fail(directories.failure());
        }
    }

    if (output.isJson()) {
        QJsonObject status = toJson(*card);
        status.insert("directories", configured ? QJsonValue(toJson(*directories)) : QJsonValue());
        output.line(status);
    } else {
        printCard(output, *card);
        if (configured && !directories->isEmpty()) {
            output.line(QString());
            printDirectories(output, *directories, invocation.hasLegend);
        }
    }
    // Prints the card's state even with a broken configuration.
    return configured ? ExitStatus::Success : output.fail(configured.failure());
}

} // namespace sdcardctl
