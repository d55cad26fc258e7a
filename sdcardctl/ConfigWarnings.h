#pragma once

#include <QVector>

#include "ConfigCheck.h"
#include "ConfigFile.h"

namespace sdcardctl {

/// Probable mistakes in a configuration that the service accepts. Looks up owners, and link targets
/// outside the card, on this machine.
QVector<ConfigFinding> warningsOf(const ConfigFile& config);

} // namespace sdcardctl
