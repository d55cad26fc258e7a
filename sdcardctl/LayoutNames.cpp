#include "LayoutNames.h"

#include "ConfigReading.h"

namespace sdcardctl {

namespace {

class Directories : public ConfigReading::Listener
{
public:
    bool onProblem(const ITCXMLNode& /*node*/, const QByteArray& /*message*/) override
    {
        return false;
    }
    void onDir(const ITCXMLNode& /*node*/, const DirInfo& dir, qreal /*percent*/) override
    {
        found.append(dir);
    }
    void onSymlink(const ITCXMLNode& /*node*/, const SymlinkInfo& /*symlink*/) override {}

    QVector<DirInfo> found;
};

} // namespace

Result<QVector<DirInfo>> configuredDirectories(const QString& configFile)
{
    const QString file = configFile.isEmpty() ? ConfigReading::kDefaultFile : configFile;
    IXMLDomParser parser;
    ITCXMLResults results;
    const ITCXMLNode root =
        parser.parseFile(file.toUtf8().constData(), ConfigReading::kRootElement, results);
    Directories directories;
    if (results.error != 0 ||
        !ConfigReading::readChildNodes(root, QString(), 1.0, directories)) {
        return Failure{ExitStatus::BadConfiguration,
                       "The media configuration '" + file +
                           "' cannot be read. \"sdcardctl check-config " + file +
                           "\" says why; --config names another."};
    }
    return directories.found;
}

} // namespace sdcardctl
