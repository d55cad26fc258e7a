#include "ConfigFile.h"

#include "ConfigReading.h"

namespace sdcardctl {

namespace {

class Collector : public ConfigReading::Listener
{
public:
    explicit Collector(ConfigFile& config) : mConfig(config) {}

    bool onProblem(const ITCXMLNode& node, const QByteArray& message) override
    {
        mConfig.errors.append({node.line(), node.column(), QString::fromUtf8(message)});
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

private:
    ConfigFile& mConfig;
};

} // namespace

ConfigFile readConfigFile(const QString& file)
{
    IXMLDomParser parser;
    ITCXMLResults results;
    ConfigFile config;
    config.root = parser.parseFile(file.toUtf8().constData(), ConfigReading::kRootElement, results);
    if (results.error != 0 || config.root.isEmpty()) {
        config.errors.append({results.line, results.column,
                              QString::fromUtf8(parser.getErrorMessage(results.error))});
        return config;
    }
    Collector collector(config);
    ConfigReading::readChildNodes(config.root, QString(), 1.0, collector);
    return config;
}

} // namespace sdcardctl
