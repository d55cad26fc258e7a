#pragma once

#include <QByteArray>
#include <QString>

#include "config.h"

/// Stands in for the device's media configuration.
namespace CardConfig {

/// The default path of setup(), and the card that it then finds.
inline const QString kFile = QStringLiteral("/etc/tavo/tavo-sdcard.config.xml");
inline const QString kMountPoint = QStringLiteral("/media/sdcard");

/// Writes @p content as the configuration file.
void write(const QByteArray& content);
/// Writes a root element with @p children and reads it; ends the test program if that fails.
ConfigHandler withChildren(const QByteArray& children);

} // namespace CardConfig
