#include <algorithm>

#include <QJsonArray>

#include "Commands.h"
#include "ConfigCheck.h"

namespace sdcardctl {

namespace {

QString nameOf(ConfigFinding::Severity severity)
{
    return severity == ConfigFinding::Error ? QStringLiteral("error") : QStringLiteral("warning");
}

QString countText(int count, const QString& what)
{
    return QString::number(count) + " " + what + (count == 1 ? "" : "s");
}

void printFinding(Output& output, const QString& file, const ConfigFinding& finding)
{
    QString place = file;
    if (finding.line > 0) {
        place += ":" + QString::number(finding.line) + ":" + QString::number(finding.column);
    }
    const Colour colour = finding.severity == ConfigFinding::Error ? Colour::Bad : Colour::Busy;
    output.line(place + ": " + output.coloured(colour, nameOf(finding.severity)) + ": " +
                finding.message);
}

QJsonObject toJson(const QString& file, const QVector<ConfigFinding>& findings)
{
    QJsonArray all;
    for (const ConfigFinding& finding : findings) {
        all.append(QJsonObject{{"severity", nameOf(finding.severity)},
                               {"line", finding.line},
                               {"column", finding.column},
                               {"message", finding.message}});
    }
    return {{"file", file}, {"findings", all}};
}

} // namespace

ExitStatus runCheckConfig(const Invocation& invocation, Output& output)
{
    const QString& file = invocation.arguments.first();
    const QVector<ConfigFinding> findings = checkConfig(file);
    const auto errors = static_cast<int>(
        std::count_if(findings.begin(), findings.end(), [](const ConfigFinding& finding) {
            return finding.severity == ConfigFinding::Error;
        }));
    const int warnings = findings.size() - errors;
    if (output.isJson()) {
        output.line(toJson(file, findings));
    } else {
        for (const ConfigFinding& finding : findings) {
            printFinding(output, file, finding);
        }
        const QString summary =
            findings.isEmpty() ? QStringLiteral("no problems")
                               : countText(errors, "error") + ", " + countText(warnings, "warning");
        if (invocation.hasLegend) {
            output.line(file + ": " + summary);
        }
    }
    const bool isBad = errors > 0 || (invocation.isStrict && warnings > 0);
    return isBad ? ExitStatus::BadConfiguration : ExitStatus::Success;
}

} // namespace sdcardctl
