#pragma once

#include <QByteArray>
#include <QString>

#include <tavoutil/XMLDomParser.h>

struct DirInfo;
struct SymlinkInfo;

/// Reads the elements of the media configuration. The service and the client's check of a file
/// share it, so that they cannot differ.
namespace ConfigReading {

/// The values when neither the command line nor the file gives others.
inline const QString kDefaultFile = QStringLiteral("/etc/tavo/tavo-sdcard.config.xml");
inline const QString kDefaultMountPoint = QStringLiteral("/media/sdcard");
inline const QString kDefaultDevicePath = QStringLiteral("/dev/mmcblk0p1");

constexpr const char* kRootElement = "sdcard";
constexpr const char* kMountPointAttribute = "mountpoint";
constexpr const char* kDevicePathAttribute = "devicepath";
constexpr const char* kDirElement = "dir";
constexpr const char* kSizeAttribute = "size";
constexpr const char* kCapacityWatchAttribute = "capacitywatch";
constexpr const char* kModeAttribute = "mode";
constexpr const char* kOwnerAttribute = "owner";
constexpr const char* kSymlinkElement = "symlink";
constexpr const char* kTargetAttribute = "target";

/// Receives everything that is read, in document order.
class Listener
{
public:
    Listener() = default;
    Listener(const Listener&) = delete;
    Listener(Listener&&) = delete;
    Listener& operator=(const Listener&) = delete;
    Listener& operator=(Listener&&) = delete;
    virtual ~Listener() = default;

    /// An element breaks the rules, so it gives no record.
    /// @return whether to read on
    virtual bool onProblem(const ITCXMLNode& node, const QByteArray& message) = 0;
    /// @param percent the directory's share of the directory around it
    virtual void onDir(const ITCXMLNode& node, const DirInfo& dir, qreal percent) = 0;
    virtual void onSymlink(const ITCXMLNode& node, const SymlinkInfo& symlink) = 0;
};

/// Whether the attribute means anything in elements of this name; others are ignored.
bool isKnownAttribute(const char* element, const char* attribute);

/// Reads the children of one element.
/// @param parentPath path of the element's directory; empty for the root
/// @param parentSize its share of the card; 1.0 for the root
/// @return false as soon as the listener does not want to read on
bool readChildNodes(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                    Listener& listener);
/// Reads one `dir` element and its children; otherwise as readChildNodes().
bool readDirNode(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                 Listener& listener);
/// Reads one `symlink` element; otherwise as readChildNodes().
bool readSymlinkNode(const ITCXMLNode& node, const QString& parentPath, Listener& listener);

} // namespace ConfigReading
