#pragma once

#include <QByteArray>
#include <QString>

#include "config.h"

/// Stands in for the device's media configuration.
namespace CardConfig {

/// Where setup() looks for the configuration by itself, and what it then finds the card to be.
inline const QString kFile = QStringLiteral("/etc/tavo/tavo-sdcard.config.xml");
inline const QString kMountPoint = QStringLiteral("/media/sdcard");

/// Writes @p content as the configuration file.
void write(const QByteArray& content);
/// Writes a root element with @p children and reads it; ends the test program where that fails.
ConfigHandler withChildren(const QByteArray& children);

} // namespace CardConfig
