#pragma once

#include <QByteArray>

namespace tavoutil {

/// The system's text for the error number @p error, as strerror() gives it, from any thread.
QByteArray systemErrorText(int error);

} // namespace tavoutil
