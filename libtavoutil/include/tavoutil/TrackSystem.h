#pragma once

#include <string>

/// Configures the log channels from a log4cxx XML configuration. If the locale's characters are not
/// UTF-8, as in the C locale of a service, it sets the process's character set to UTF-8, so that
/// records are not converted.
///
/// Reports parts of the configuration that log4cxx cannot use on standard error, and sends records
/// there that would be lost otherwise. Install the crash handler first: log4cxx crashes on an
/// appender that contains itself and on a class that is not an appender.
///
/// Call it once, from the main thread, before other threads exist.
/// @param file path of the configuration, in the local 8-bit encoding
/// @return false when records go to standard error because the file, or a part of it, cannot be
/// used
bool initializeTrackSystem(const std::string& file);
