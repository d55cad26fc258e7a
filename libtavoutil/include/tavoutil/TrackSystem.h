#pragma once

#include <string>

/// Configures the log channels from a log4cxx XML configuration. Where the locale's characters are
/// not UTF-8, as in the C locale of a service, the process's character set becomes UTF-8, so that
/// records are written as they are.
///
/// What log4cxx cannot use of the configuration it reports on standard error. Records that would
/// get lost then go there too. Install the crash handler first: log4cxx crashes on an appender that
/// contains itself and on a class that is no appender.
///
/// To be called once, from the main thread and before there are others.
/// @param file path of the configuration, in the local 8-bit encoding
/// @return false when records go to standard error because the file, or a part of it, cannot be
/// used
bool initializeTrackSystem(const std::string& file);
