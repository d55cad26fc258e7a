#pragma once

#include <string>

/// Configures the log channels from a log4cxx XML configuration. Where the locale's characters are
/// not UTF-8, as in the C locale of a service, the process's character set becomes UTF-8, so that
/// records are written as they are.
///
/// A configuration that log4cxx cannot use, be it in parts only, is told in one line on standard
/// error; records that would get lost then go there.
///
/// To be called from the main thread and before there are others, since the configuration is first
/// tried in a child process: there are some that log4cxx crashes on.
/// @param file path of the configuration, in the local 8-bit encoding
/// @return false when records go to standard error because the file cannot be used
bool initializeTrackSystem(const std::string& file);
