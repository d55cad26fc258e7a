#pragma once

#include <QString>

/// Where the service is found on the system bus.
namespace BusNames {

inline const QString kService = QStringLiteral("tavo.SDCard1");
inline const QString kCardObject = QStringLiteral("/tavo/sdcard");

} // namespace BusNames
