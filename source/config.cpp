#include "config.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <QDir>
#include <QFileInfo>

#include <grp.h>
#include <pwd.h>

#include <tavoutil/TrackLog.h>

#include "MountedFileSystem.h"
#include "StorageCapacityWatcher.h"

namespace {

constexpr mode_t kDefaultMode = 0755;
constexpr int kOctal = 8;
constexpr qreal kPercent = 0.01;

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

mode_t DirInfo::modeBits() const
{
    if (mode.empty()) {
        return kDefaultMode;
    }
    return static_cast<mode_t>(std::strtol(mode.c_str(), nullptr, kOctal));
}

DirInfo::Ids DirInfo::ownerIds() const
{
    const std::size_t colon = owner.find(':');
    const std::string user = owner.substr(0, colon);
    const std::string group = colon == std::string::npos ? std::string() : owner.substr(colon + 1);

    Ids ids{0, 0};
    if (!user.empty()) {
        if (const passwd* const entry = ::getpwnam(user.c_str())) {
            ids.user = entry->pw_uid;
        }
    }
    if (!group.empty()) {
        if (const ::group* const entry = ::getgrnam(group.c_str())) {
            ids.group = entry->gr_gid;
        }
    }
    return ids;
}

qint64 DirInfo::allottedBytes(quint64 cardBytes) const
{
    // Shares are not checked when they are read: one that is no sensible number must not end in an
    // undefined conversion.
    constexpr qreal kLimit = 9223372036854775808.0;
    const qreal bytes = static_cast<qreal>(cardBytes) * size;
    if (bytes >= kLimit) {
        return std::numeric_limits<qint64>::max();
    }
    if (bytes <= -kLimit) {
        return std::numeric_limits<qint64>::min();
    }
    return std::isnan(bytes) ? 0 : static_cast<qint64>(bytes);
}

ConfigHandler::ConfigHandler()
{
    initTrack("config");
}

bool ConfigHandler::setup()
{
    IXMLDomParser parser;
    ITCXMLResults results;
    const ITCXMLNode root = parser.parseFile(mConfigFile.toUtf8().constData(), "sdcard", results);
    if (results.error != 0) {
        TRACK_ERROR(logger(), "Could not parse file : " + mConfigFile + " " +
                                  parser.getErrorMessage(results.error));
        return false;
    }
    if (root.isEmpty()) {
        TRACK_ERROR(logger(), "Could parse file '" + mConfigFile + "' but node is empty");
        return false;
    }

    if (const char* const mountPoint = root.getAttribute("mountpoint")) {
        mMountPoint = QString::fromUtf8(mountPoint);
    }
    if (const char* const devicePath = root.getAttribute("devicepath")) {
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

bool ConfigHandler::parseChildNodes(const ITCXMLNode& node, const QString& parentPath,
                                    qreal parentSize, QVector<DirInfo>& dirs,
                                    QVector<SymlinkInfo>& symlinks) const
{
    for (int i = 0; i < node.nChildNode(); ++i) {
        const ITCXMLNode child = node.getChildNode(i);
        const char* const name = child.getName();
        if (name == nullptr) {
            reportParseError("Node with no name found");
            return false;
        }
        if (std::strcmp(name, "dir") == 0) {
            if (!parseDirNode(child, parentPath, parentSize, dirs, symlinks)) {
                return false;
            }
        } else if (std::strcmp(name, "symlink") == 0) {
            if (!parseSymlinkNode(child, parentPath, symlinks)) {
                return false;
            }
        } else {
            reportParseError(QByteArray("Unsupported node '") + name + "' found");
            return false;
        }
    }
    return true;
}

bool ConfigHandler::parseDirNode(const ITCXMLNode& node, const QString& parentPath,
                                 qreal parentSize, QVector<DirInfo>& dirs,
                                 QVector<SymlinkInfo>& symlinks) const
{
    const char* const text = node.getText();
    if (text == nullptr) {
        reportParseError("Content of node 'dir' not definied");
        return false;
    }
    const char* const size = node.getAttribute("size");
    if (size == nullptr) {
        reportParseError("Attribute 'size' of node 'dir' not found");
        return false;
    }
    bool isNumber = false;
    const qreal percent = QString::fromLatin1(size).toDouble(&isNumber);
    if (!isNumber) {
        reportParseError("Attribute 'size' of node 'dir' with format error");
        return false;
    }

    const auto attribute = [&node](const char* name) {
        const char* const value = node.getAttribute(name);
        return std::string(value != nullptr ? value : "");
    };
    DirInfo dir;
    dir.name = QString::fromLatin1(text);
    dir.path = parentPath + "/" + dir.name;
    dir.size = parentSize * kPercent * percent;
    dir.capacitywatch = attribute("capacitywatch") == "true";
    dir.mode = attribute("mode");
    dir.owner = attribute("owner");
    dirs.append(dir);
    return parseChildNodes(node, dir.path, dir.size, dirs, symlinks);
}

bool ConfigHandler::parseSymlinkNode(const ITCXMLNode& node, const QString& parentPath,
                                     QVector<SymlinkInfo>& symlinks) const
{
    const char* const text = node.getText();
    if (text == nullptr) {
        reportParseError("Content of node 'symlink' not definied");
        return false;
    }
    const char* const target = node.getAttribute("target");
    if (target == nullptr) {
        reportParseError("Attribute 'target' of node 'symlink' not found");
        return false;
    }

    SymlinkInfo symlink;
    symlink.name = QString::fromLatin1(text);
    symlink.path = parentPath + "/" + symlink.name;
    symlink.target = QString::fromLatin1(target);
    const QDir linkDir(QFileInfo(symlink.path).path());
    symlink.absoluteTarget = QFileInfo(linkDir, symlink.target).absoluteFilePath();
    symlinks.append(symlink);
    return true;
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
