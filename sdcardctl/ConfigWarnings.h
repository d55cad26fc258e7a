#pragma once

#include <QVector>

#include "ConfigCheck.h"
#include "ConfigFile.h"

namespace sdcardctl {

/// Probable mistakes in a configuration that the service accepts. Owners and targets outside the
/// card are looked up on this machine.
QVector<ConfigFinding> warningsOf(const ConfigFile& config);

} // namespace sdcardctl
