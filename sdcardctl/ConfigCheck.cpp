#include "ConfigCheck.h"

#include <algorithm>
#include <tuple>

#include "ConfigFile.h"
#include "ConfigWarnings.h"

namespace sdcardctl {

QVector<ConfigFinding> checkConfig(const QString& file)
{
    const ConfigFile config = readConfigFile(file);
    QVector<ConfigFinding> findings;
    for (const ConfigError& error : config.errors) {
        findings.append({ConfigFinding::Error, error.line, error.column, error.message});
    }
    if (!config.root.isEmpty()) {
        findings += warningsOf(config);
    }
    std::stable_sort(findings.begin(), findings.end(),
                     [](const ConfigFinding& left, const ConfigFinding& right) {
                         return std::tie(left.line, left.column) <
                                std::tie(right.line, right.column);
                     });
    return findings;
}

} // namespace sdcardctl
