#pragma once

#include <QString>

/// Constants that several units share.
namespace SdcardDefs {

/// The format script, started without arguments.
inline const QString kMmcFormatCmd = QStringLiteral("/opt/tavo/bin/tavo-create-sdcardFS.sh");
inline constexpr int kMmcFormatTimeoutMs = 150000;
/// Exit codes of the format command; any other is a failure.
inline constexpr int kMmcFormatNotNeeded = 0;
inline constexpr int kMmcFormatCreated = 99;

/// File-system types of a removable card and of built-in flash. Both names are part of the
/// published interface and have the same value on this device.
inline const QString kMmcFsTypeSd = QStringLiteral("ext4");
inline const QString kMmcFsTypeEmmc = QStringLiteral("ext4");

inline const QString kMmcMountTable = QStringLiteral("/proc/mounts");

/// Contains "1" while the eject button is pressed. Boards without the file have no removable card.
inline const QString kInputSdEjectButton = QStringLiteral("/opt/tavo/tavodev/mmc1_eject/value");

} // namespace SdcardDefs
