#include "ConfigCheck.h"

#include <algorithm>
#include <tuple>

#include "ConfigReading.h"
#include "ConfigWarnings.h"

namespace sdcardctl {

namespace {

class Check : public ConfigReading::Listener
{
public:
    explicit Check(CheckedConfig& config) : mConfig(config) {}

    bool onProblem(const ITCXMLNode& node, const QByteArray& message) override
    {
        findings.append(
            {ConfigFinding::Error, node.line(), node.column(), QString::fromUtf8(message)});
        return true;
    }
    void onDir(const ITCXMLNode& node, const DirInfo& dir, qreal percent) override
    {
        mConfig.dirs.append({node, dir, percent});
    }
    void onSymlink(const ITCXMLNode& node, const SymlinkInfo& symlink) override
    {
        mConfig.symlinks.append({node, symlink});
    }

    QVector<ConfigFinding> findings;

private:
    CheckedConfig& mConfig;
};

} // namespace

QVector<ConfigFinding> checkConfig(const QString& file)
{
    IXMLDomParser parser;
    ITCXMLResults results;
    CheckedConfig config;
    config.root = parser.parseFile(file.toUtf8().constData(), ConfigReading::kRootElement, results);
    if (results.error != 0 || config.root.isEmpty()) {
        return {{ConfigFinding::Error, results.line, results.column,
                 QString::fromUtf8(parser.getErrorMessage(results.error))}};
    }
    Check check(config);
    ConfigReading::readChildNodes(config.root, QString(), 1.0, check);

    QVector<ConfigFinding> findings = check.findings + warningsOf(config);
    std::stable_sort(findings.begin(), findings.end(),
                     [](const ConfigFinding& left, const ConfigFinding& right) {
                         return std::tie(left.line, left.column) <
                                std::tie(right.line, right.column);
                     });
    return findings;
}

} // namespace sdcardctl
