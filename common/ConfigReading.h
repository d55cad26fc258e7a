#pragma once

#include <QByteArray>
#include <QString>

#include <tavoutil/XMLDomParser.h>

struct DirInfo;
struct SymlinkInfo;

/// Reads the elements of the media configuration. The service and the client's check of a file
/// share it, so that they cannot differ.
namespace ConfigReading {

/// The defaults for values that neither the command line nor the file sets.
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

    /// An element that breaks the rules and therefore gives no record.
    /// @return whether to read on
    virtual bool onProblem(const ITCXMLNode& node, const QByteArray& message) = 0;
    /// @param percent the directory's share of the directory around it
    virtual void onDir(const ITCXMLNode& node, const DirInfo& dir, qreal percent) = 0;
    virtual void onSymlink(const ITCXMLNode& node, const SymlinkInfo& symlink) = 0;
};

/// Whether elements of this name use the attribute. All others ignore it.
bool isKnownAttribute(const char* element, const char* attribute);

/// Reads the children of one element.
/// @param parentPath path of the element's directory; empty for the root
/// @param parentSize its share of the card; 1.0 for the root
/// @return false if the listener ended the reading
bool readChildNodes(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                    Listener& listener);
/// Reads one `dir` element and its children; otherwise as readChildNodes().
bool readDirNode(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                 Listener& listener);
/// Reads one `symlink` element; otherwise as readChildNodes().
bool readSymlinkNode(const ITCXMLNode& node, const QString& parentPath, Listener& listener);

} // namespace ConfigReading
