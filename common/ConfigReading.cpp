#include "ConfigReading.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>

#include <QDir>
#include <QFileInfo>

#include "DirInfo.h"

namespace ConfigReading {

namespace {

constexpr qreal kPercent = 0.01;

constexpr std::array<std::pair<const char*, const char*>, 7> kAttributes = {{
    {kRootElement, kMountPointAttribute},
    {kRootElement, kDevicePathAttribute},
    {kDirElement, kSizeAttribute},
    {kDirElement, kCapacityWatchAttribute},
    {kDirElement, kModeAttribute},
    {kDirElement, kOwnerAttribute},
    {kSymlinkElement, kTargetAttribute},
}};

} // namespace

bool isKnownAttribute(const char* element, const char* attribute)
{
    return std::any_of(kAttributes.begin(), kAttributes.end(), [&](const auto& known) {
        return std::strcmp(known.first, element) == 0 && std::strcmp(known.second, attribute) == 0;
    });
}

bool readChildNodes(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                    Listener& listener)
{
    for (int i = 0; i < node.nChildNode(); ++i) {
        const ITCXMLNode child = node.getChildNode(i);
        const char* const name = child.getName();
        bool readOn = false;
        if (name == nullptr) {
            readOn = listener.onProblem(child, "Node with no name found");
        } else if (std::strcmp(name, kDirElement) == 0) {
            readOn = readDirNode(child, parentPath, parentSize, listener);
        } else if (std::strcmp(name, kSymlinkElement) == 0) {
            readOn = readSymlinkNode(child, parentPath, listener);
        } else {
            readOn = listener.onProblem(child, QByteArray("Unsupported node '") + name + "' found");
        }
        if (!readOn) {
            return false;
        }
    }
    return true;
}

bool readDirNode(const ITCXMLNode& node, const QString& parentPath, qreal parentSize,
                 Listener& listener)
{
    const char* const text = node.getText();
    if (text == nullptr && !listener.onProblem(node, "Content of node 'dir' not definied")) {
        return false;
    }
    const char* const size = node.getAttribute(kSizeAttribute);
    if (size == nullptr && !listener.onProblem(node, "Attribute 'size' of node 'dir' not found")) {
        return false;
    }
    bool isNumber = false;
    const qreal percent = QString::fromLatin1(size).toDouble(&isNumber);
    if (size != nullptr && !isNumber &&
        !listener.onProblem(node, "Attribute 'size' of node 'dir' with format error")) {
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
    dir.capacitywatch = attribute(kCapacityWatchAttribute) == "true";
    dir.mode = attribute(kModeAttribute);
    dir.owner = attribute(kOwnerAttribute);
    if (text != nullptr && isNumber) {
        listener.onDir(node, dir, percent);
    }
    return readChildNodes(node, dir.path, dir.size, listener);
}

bool readSymlinkNode(const ITCXMLNode& node, const QString& parentPath, Listener& listener)
{
    const char* const text = node.getText();
    if (text == nullptr && !listener.onProblem(node, "Content of node 'symlink' not definied")) {
        return false;
    }
    const char* const target = node.getAttribute(kTargetAttribute);
    if (target == nullptr) {
        return listener.onProblem(node, "Attribute 'target' of node 'symlink' not found");
    }
    if (text == nullptr) {
        return true;
    }

    SymlinkInfo symlink;
    symlink.name = QString::fromLatin1(text);
    symlink.path = parentPath + "/" + symlink.name;
    symlink.target = QString::fromLatin1(target);
    const QDir linkDir(QFileInfo(symlink.path).path());
    symlink.absoluteTarget = QDir::isAbsolutePath(symlink.target)
                                 ? symlink.target
                                 : QFileInfo(linkDir, symlink.target).absoluteFilePath();
    listener.onSymlink(node, symlink);
    return true;
}

} // namespace ConfigReading
