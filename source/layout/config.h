#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <tavoutil/TrackObject.h>
#include <tavoutil/XMLDomParser.h>

#include "CardLayout.h"
#include "ConfigReading.h"
#include "DirInfo.h"

/// The media configuration: the mount point and the layout of the card. Read-only after setup(), so
/// that threads may share it.
class ConfigHandler : public TrackObject, public CardLayout
{
public:
    ConfigHandler();

    /// The path of the file that setup() reads.
    const QString& configFile() const { return mConfigFile; }
    /// Replaces its default path.
    void setConfigFile(const QString& path) { mConfigFile = path; }

    /// Reads the configuration file.
    /// @return false on the first error, which has been logged; elements before it are kept
    bool setup();

    /// Creates and corrects the configured directories and links on the mounted card. Removes
    /// nothing except a link with another target.
    /// @return false if at least one step failed; each failure has been logged
    bool applyConfigLayout() const;

    const QString& mountPoint() const override { return mMountPoint; }
    const QString& devicePath() const { return mDevicePath; }
    const QVector<DirInfo>& dirs() const override { return mDirs; }
    const QVector<SymlinkInfo>& symlinks() const { return mSymlinks; }
    /// One "name=path" for each directory.
    const QStringList& dirEntries() const { return mDirEntries; }

    /// Path, relative to the mount point, of the first directory named @p id, or else of the first
    /// such link; empty if there is neither.
    QString getDirPath(const QString& id) const;
    /// Bytes allotted to the first directory named @p id; 0 if there is none or no mounted card.
    qint64 getDirSize(const QString& id) const;
    /// Bytes (apparent sizes) that the first directory named @p id and its content occupy, or the
    /// used bytes of the card if @p id is empty. 0 if there is none or no mounted card.
    qint64 getDirUsed(const QString& id) const;
    /// Whether the kernel lists a card in the first MMC slot.
    bool hasMmcDevice() const;

    // Published for other programs of the device, which are built against this class. The service
    // itself uses only parseChildNodes() of these.

    /// One "name=path" for each link.
    const QStringList& symlinkEntries() const { return mSymlinkEntries; }
    /// Reads the children of one element.
    /// @param parentPath path of the element's directory; empty for the root
    /// @param parentSize its share of the card; 1.0 for the root
    /// @return false on the first error, which has been logged
    bool parseChildNodes(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                         QVector<DirInfo>& dirs, QVector<SymlinkInfo>& symlinks) const;
    /// Reads one `dir` element and its children; otherwise as parseChildNodes().
    bool parseDirNode(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                      QVector<DirInfo>& dirs, QVector<SymlinkInfo>& symlinks) const;
    /// Reads one `symlink` element; otherwise as parseChildNodes().
    bool parseSymlinkNode(const ITCXMLNode& node, const QString& parentPath,
                          QVector<SymlinkInfo>& symlinks) const;

private:
    class Collector;

    const DirInfo* findDir(const QString& id) const;
    void reportParseError(const QByteArray& message) const;

    QString mConfigFile = ConfigReading::kDefaultFile;
    QString mMountPoint = ConfigReading::kDefaultMountPoint;
    QString mDevicePath = ConfigReading::kDefaultDevicePath;
    QString mMmcDevicesDir = QStringLiteral("/sys/bus/mmc/devices");
    QVector<DirInfo> mDirs;
    QVector<SymlinkInfo> mSymlinks;
    QStringList mDirEntries;
    QStringList mSymlinkEntries;
};
