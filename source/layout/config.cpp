#include "config.h"

#include <algorithm>

#include <QDir>
#include <QFileInfo>

#include <tavoutil/TrackLog.h>

#include "ConfigReading.h"
#include "LayoutApplication.h"
#include "MountedFileSystem.h"
#include "StorageCapacityWatcher.h"

namespace {

constexpr auto kTrackSource = "config";

template <typename Info>
QStringList entriesOf(const QVector<Info>& infos)
{
    QStringList entries;
    for (const Info& info : infos) {
        entries.append(info.name + "=" + info.path);
    }
    return entries;
}

template <typename Info>
const Info* findByName(const QVector<Info>& infos, const QString& name)
{
    const auto* const found = std::find_if(infos.cbegin(), infos.cend(),
                                           [&name](const Info& info) { return info.name == name; });
    return found == infos.cend() ? nullptr : found;
}

} // namespace

ConfigHandler::ConfigHandler()
{
    initTrack("config");
}

bool ConfigHandler::setup()
{
    IXMLDomParser parser;
    ITCXMLResults results;
    const ITCXMLNode root =
        parser.parseFile(mConfigFile.toUtf8().constData(), ConfigReading::kRootElement, results);
    if (results.error != 0) {
        TRACK_ERROR(logger(), "Could not parse file : " + mConfigFile + " " +
                                  parser.getErrorMessage(results.error));
        return false;
    }
    if (root.isEmpty()) {
        TRACK_ERROR(logger(), "Could parse file '" + mConfigFile + "' but node is empty");
        return false;
    }

    if (const char* const mountPoint = root.getAttribute(ConfigReading::kMountPointAttribute)) {
        // Spelled as in the mount table, where it is looked up.
        mMountPoint = QDir::cleanPath(QString::fromUtf8(mountPoint));
    }
    if (const char* const devicePath = root.getAttribute(ConfigReading::kDevicePathAttribute)) {
        mDevicePath = QString::fromUtf8(devicePath);
    }

    mDirs.clear();
    mSymlinks.clear();
    if (!parseChildNodes(root, QString(), 1.0, mDirs, mSymlinks)) {
        TRACK_ERROR(logger(), "Could not parse child nodes in file '" + mConfigFile + "'");
        return false;
    }
    mDirEntries = entriesOf(mDirs);
    mSymlinkEntries = entriesOf(mSymlinks);
    TRACK_INFO(logger(), "Configuration successfully parsed");
    return true;
}

// Collects the records in lists; the first error ends the reading.
class ConfigHandler::Collector : public ConfigReading::Listener
{
public:
    Collector(const ConfigHandler& config, QVector<DirInfo>* dirs, QVector<SymlinkInfo>& symlinks)
        : mConfig(config), mDirs(dirs), mSymlinks(symlinks)
    {}

    bool onProblem(const ITCXMLNode& /*node*/, const QByteArray& message) override
    {
        mConfig.reportParseError(message);
        return false;
    }
    void onDir(const ITCXMLNode& /*node*/, const DirInfo& dir, qreal /*percent*/) override
    {
        mDirs->append(dir);
    }
    void onSymlink(const ITCXMLNode& /*node*/, const SymlinkInfo& symlink) override
    {
        mSymlinks.append(symlink);
    }

private:
    const ConfigHandler& mConfig;
    QVector<DirInfo>* mDirs; // null if no directory can follow
    QVector<SymlinkInfo>& mSymlinks;
};

bool ConfigHandler::parseChildNodes(const ITCXMLNode& node, const QString& parentPath,
                                    qreal parentSize, QVector<DirInfo>& dirs,
                                    QVector<SymlinkInfo>& symlinks) const
{
    Collector collector(*this, &dirs, symlinks);
    return ConfigReading::readChildNodes(node, parentPath, parentSize, collector);
}

bool ConfigHandler::parseDirNode(const ITCXMLNode& node, const QString& parentPath,
                                 qreal parentSize, QVector<DirInfo>& dirs,
                                 QVector<SymlinkInfo>& symlinks) const
{
    Collector collector(*this, &dirs, symlinks);
    return ConfigReading::readDirNode(node, parentPath, parentSize, collector);
}

bool ConfigHandler::parseSymlinkNode(const ITCXMLNode& node, const QString& parentPath,
                                     QVector<SymlinkInfo>& symlinks) const
{
    Collector collector(*this, nullptr, symlinks);
    return ConfigReading::readSymlinkNode(node, parentPath, collector);
}

void ConfigHandler::reportParseError(const QByteArray& message) const
{
    TRACK_ERROR(logger(),
                "Parsing errror: " + message + " in file '" + mConfigFile.toLocal8Bit() + "'");
}

const DirInfo* ConfigHandler::findDir(const QString& id) const
{
    return findByName(mDirs, id);
}

bool ConfigHandler::applyConfigLayout() const
{
    return LayoutApplication(mMountPoint, logger()).apply(mDirs, mSymlinks);
}

QString ConfigHandler::getDirPath(const QString& id) const
{
    if (const DirInfo* const dir = findDir(id)) {
        return dir->path;
    }
    const SymlinkInfo* const symlink = findByName(mSymlinks, id);
    return symlink != nullptr ? symlink->path : QString();
}

qint64 ConfigHandler::getDirSize(const QString& id) const
{
    const DirInfo* const dir = findDir(id);
    if (dir == nullptr) {
        return 0;
    }
    const auto card = MountedFileSystem(mMountPoint).size();
    return card ? dir->allottedBytes(card->total) : 0;
}

qint64 ConfigHandler::getDirUsed(const QString& id) const
{
    const MountedFileSystem card(mMountPoint);
    if (id.isEmpty()) {
        const auto size = card.size();
        return size ? static_cast<qint64>(size->total - size->free) : 0;
    }
    const DirInfo* const dir = findDir(id);
    if (dir == nullptr || !card.isMounted()) {
        return 0;
    }
    return StorageCapacityWatcher(*this).dirSize((mMountPoint + dir->path).toUtf8());
}

bool ConfigHandler::hasMmcDevice() const
{
    const QFileInfoList entries =
        QDir(mMmcDevicesDir)
            .entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    return std::any_of(entries.cbegin(), entries.cend(), [](const QFileInfo& entry) {
        return entry.isSymLink() && entry.baseName().startsWith(QLatin1String("mmc0"));
    });
}
