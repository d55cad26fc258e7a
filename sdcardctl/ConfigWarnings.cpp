#include "ConfigWarnings.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <QHash>
#include <QSet>

#include <grp.h>
#include <pwd.h>

#include "ConfigReading.h"
#include "LinkTargets.h"
#include "Output.h"

namespace sdcardctl {

namespace {

constexpr int kMaxNameBytes = 255;
constexpr qreal kWhole = 100;
// Rounding tolerance: decimal shares may not add up to exactly 100 in binary.
constexpr qreal kRounding = 1e-6;

class Warnings
{
public:
    void add(const ITCXMLNode& node, const QString& message)
    {
        findings.append({ConfigFinding::Warning, node.line(), node.column(), message});
    }

    QVector<ConfigFinding> findings;
};

QString quoted(const QString& text)
{
    return "'" + text + "'";
}

QString quoted(const std::string& text)
{
    return quoted(QString::fromStdString(text));
}

QString placeOf(const ITCXMLNode& node)
{
    return "line " + QString::number(node.line());
}

bool isAscii(const QString& text)
{
    return std::all_of(text.begin(), text.end(),
                       [](QChar character) { return character.unicode() < 0x80; });
}

bool hasControlCharacter(const QString& text)
{
    return std::any_of(text.begin(), text.end(), [](QChar character) {
        return character.unicode() < 0x20 || character.unicode() == 0x7F;
    });
}

// Attributes with a prefix belong to editors and schemas.
void warnOfUnknownAttributes(const ITCXMLNode& node, Warnings& warnings)
{
    for (int i = 0; i < node.nAttribute(); ++i) {
        const char* const name = node.getAttributeName(i);
        const bool isForeign = std::strchr(name, ':') != nullptr || std::strcmp(name, "xmlns") == 0;
        if (!isForeign && !ConfigReading::isKnownAttribute(node.getName(), name)) {
            warnings.add(node, "the attribute " + quoted(QString::fromUtf8(name)) + " is ignored");
        }
    }
}

void warnOfRoot(const ITCXMLNode& root, Warnings& warnings)
{
    warnOfUnknownAttributes(root, warnings);
    for (const char* const name :
         {ConfigReading::kMountPointAttribute, ConfigReading::kDevicePathAttribute}) {
        const char* const value = root.getAttribute(name);
        if (value != nullptr && (value[0] != '/' || value[1] == '\0')) {
            warnings.add(root, quoted(QString::fromLatin1(name)) + " is " +
                                   quoted(QString::fromUtf8(value)) +
                                   "; it must be an absolute path other than '/'");
        }
    }
}

void warnOfName(const ITCXMLNode& node, const QString& name, Warnings& warnings)
{
    if (name.contains('/') || name == QLatin1String("..") || name == QLatin1String(".")) {
        warnings.add(node, "the name " + quoted(name) + " is not one component of a path");
    }
    if (hasControlCharacter(name)) {
        warnings.add(node, "the name contains a line break or another control character; is there "
                           "text before and after a nested element?");
    }
    if (!isAscii(name)) {
        warnings.add(node, QStringLiteral("the name contains characters beyond ASCII, which "
                                          "are different on the card"));
    }
    if (name.toUtf8().size() > kMaxNameBytes) {
        warnings.add(node, "the name is longer than " + QString::number(kMaxNameBytes) +
                               " bytes, so it cannot be created");
    }
}

void warnOfShare(const CheckedDir& dir, Warnings& warnings)
{
    if (std::isfinite(dir.percent) && dir.percent > 0) {
        return;
    }
    QString message = "the share of " + quoted(dir.info.name) + " is " +
                      QString::number(dir.percent) + " %; it must be a number above 0";
    if (dir.info.capacitywatch && dir.percent <= 0) {
        message += QStringLiteral(", or every file in this watched directory is deleted");
    }
    warnings.add(dir.node, message);
}

// Sibling directories share their parent.
void warnOfSums(const QVector<CheckedDir>& dirs, Warnings& warnings)
{
    QHash<QString, qreal> sums;
    for (const CheckedDir& dir : dirs) {
        if (!std::isfinite(dir.percent)) {
            continue;
        }
        const QString parent = dir.info.path.chopped(dir.info.name.size() + 1);
        qreal& sum = sums[parent];
        const bool wasWithin = sum <= kWhole + kRounding;
        sum += dir.percent;
        if (wasWithin && sum > kWhole + kRounding) {
            warnings.add(
                dir.node,
                "with " + quoted(dir.info.name) + " the shares of the directories " +
                    (parent.isEmpty() ? QStringLiteral("on the card") : "in " + quoted(parent)) +
                    " come to " + percentText(sum / kWhole));
        }
    }
}

void warnOfAttributes(const CheckedDir& dir, Warnings& warnings)
{
    warnOfUnknownAttributes(dir.node, warnings);
    const char* const watch = dir.node.getAttribute(ConfigReading::kCapacityWatchAttribute);
    if (watch != nullptr && !dir.info.capacitywatch && std::strcmp(watch, "false") != 0) {
        warnings.add(dir.node, "'capacitywatch' is " + quoted(QString::fromUtf8(watch)) +
                                   "; only 'true' switches it on");
    }
    const std::string& mode = dir.info.mode;
    const bool isOctal = mode.find_first_not_of("01234567") == std::string::npos;
    constexpr mode_t kAllBits = 07777;
    if (!isOctal || dir.info.modeBits() > kAllBits) {
        warnings.add(dir.node, "the mode " + quoted(mode) + " is not an octal number up to 7777; " +
                                   "it is read as " +
                                   QString::number(dir.info.modeBits(), 8).rightJustified(4, '0'));
    }
    const auto [user, group] = dir.info.ownerNames();
    if (!user.empty() && ::getpwnam(user.c_str()) == nullptr) {
        warnings.add(dir.node, "this machine has no user " + quoted(user) +
                                   "; the directory would belong to root");
    }
    if (!group.empty() && ::getgrnam(group.c_str()) == nullptr) {
        warnings.add(dir.node, "this machine has no group " + quoted(group) +
                                   "; the directory would belong to the group root");
    }
}

void warnOfDoubles(const ConfigFile& config, Warnings& warnings)
{
    QHash<QString, ITCXMLNode> identifiers;
    QSet<QString> watched;
    QHash<QString, ITCXMLNode> paths;
    for (const CheckedDir& dir : config.dirs) {
        const QString& name = dir.info.name;
        const auto first = identifiers.constFind(name);
        if (first != identifiers.constEnd()) {
            const bool isEnsured = dir.info.capacitywatch && !watched.contains(name);
            warnings.add(dir.node, "the identifier " + quoted(name) +
                                       " belongs to the directory of " + placeOf(*first) +
                                       "; this one " +
                                       (isEnsured ? "is reached by EnsureDirSize only"
                                                  : "is not reached by any call"));
        } else {
            identifiers.insert(name, dir.node);
        }
        if (dir.info.capacitywatch) {
            watched.insert(name);
        }
        if (!paths.contains(dir.info.path)) {
            paths.insert(dir.info.path, dir.node);
        }
    }
    for (const CheckedSymlink& symlink : config.symlinks) {
        const auto first = paths.constFind(symlink.info.path);
        if (first != paths.constEnd()) {
            warnings.add(symlink.node,
                         quoted(symlink.info.path) + " is already used by " + placeOf(*first));
        } else {
            paths.insert(symlink.info.path, symlink.node);
        }
    }
}

void warnOfSymlinks(const ConfigFile& config, Warnings& warnings)
{
    const char* const configured = config.root.getAttribute(ConfigReading::kMountPointAttribute);
    LinkTargets targets(configured != nullptr ? QString::fromUtf8(configured)
                                              : ConfigReading::kDefaultMountPoint);
    for (const CheckedDir& dir : config.dirs) {
        targets.addDir(dir.info.path);
    }
    for (const CheckedSymlink& symlink : config.symlinks) {
        targets.addSymlink(symlink.info.path, symlink.info.target);
    }
    for (const CheckedSymlink& symlink : config.symlinks) {
        warnOfName(symlink.node, symlink.info.name, warnings);
        warnOfUnknownAttributes(symlink.node, warnings);
        if (symlink.node.nChildNode() > 0) {
            warnings.add(symlink.node, QStringLiteral("elements inside a link are ignored"));
        }
        const QString& target = symlink.info.target;
        if (!isAscii(target)) {
            warnings.add(symlink.node,
                         QStringLiteral("the target contains characters beyond ASCII, "
                                        "which are different on the card"));
        }
        switch (targets.outcomeOf(symlink.info.path, target)) {
        case LinkTargets::OnCard:
        case LinkTargets::OffCard:
            break;
        case LinkTargets::MissingOnCard:
            warnings.add(symlink.node, "the target " + quoted(target) +
                                           " is no configured directory of the card");
            break;
        case LinkTargets::MissingOffCard:
            warnings.add(symlink.node, "the target " + quoted(target) +
                                           " is outside the card and missing on this machine");
            break;
        case LinkTargets::Endless:
            warnings.add(symlink.node, "the target " + quoted(target) + " is a loop of links");
            break;
        }
    }
}

} // namespace

QVector<ConfigFinding> warningsOf(const ConfigFile& config)
{
    Warnings warnings;
    warnOfRoot(config.root, warnings);
    for (const CheckedDir& dir : config.dirs) {
        warnOfName(dir.node, dir.info.name, warnings);
        warnOfShare(dir, warnings);
        warnOfAttributes(dir, warnings);
    }
    warnOfSums(config.dirs, warnings);
    warnOfDoubles(config, warnings);
    warnOfSymlinks(config, warnings);
    return warnings.findings;
}

} // namespace sdcardctl
