#pragma once

#include <QString>

/// Names on the system bus.
namespace BusNames {

inline const QString kService = QStringLiteral("tavo.SDCard1");
inline const QString kCardObject = QStringLiteral("/tavo/sdcard");
/// What the card's users need.
inline const QString kCardInterface = QStringLiteral("tavo.SDCard1");
/// What announces cards to the service.
inline const QString kControllerInterface = QStringLiteral("tavo.SDCardController1");

} // namespace BusNames
