#pragma once

#include <QString>

/// Names on the system bus.
namespace BusNames {

inline const QString kService = QStringLiteral("tavo.SDCard1");
inline const QString kCardObject = QStringLiteral("/tavo/sdcard");
/// The interface for programs that use the card.
inline const QString kCardInterface = QStringLiteral("tavo.SDCard1");
/// The interface that announces cards to the service.
inline const QString kControllerInterface = QStringLiteral("tavo.SDCardController1");

} // namespace BusNames
