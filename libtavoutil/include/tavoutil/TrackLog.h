#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include <QByteArray>
#include <QString>

#include <log4cxx/logger.h>

#include <tavoutil/TrackObject.h>

/// The logging calls. Each takes the logger and the message, which may be a QString, a QByteArray,
/// a std::string or a literal:
///
///     TRACK_INFO(logger(), "Executing '" + commandLine + "'...");
///
/// The record's location carries the source name (the file's name up to its first '_' or '.', so
/// that the files of one class share one name) and the calling function's full signature. The
/// message is built only where the level is enabled; an ERROR or FATAL call is counted in any case.
#define TRACK_INFO(logger, message) TRACK_RECORD_(logger, Info, message)
#define TRACK_WARN(logger, message) TRACK_RECORD_(logger, Warn, message)
#define TRACK_ERROR(logger, message)                                                               \
    do {                                                                                           \
        ++TrackObject::sErrorCounter;                                                              \
        TRACK_RECORD_(logger, Error, message);                                                     \
    } while (false)
#define TRACK_FATAL(logger, message)                                                               \
    do {                                                                                           \
        ++TrackObject::sFatalCounter;                                                              \
        TRACK_RECORD_(logger, Fatal, message);                                                     \
    } while (false)

#define TRACK_RECORD_(logger, level, message)                                                      \
    do {                                                                                           \
        const log4cxx::LoggerPtr& trackLogger = (logger);                                          \
        if (trackLogger->is##level##Enabled()) {                                                   \
            static constexpr auto trackSource = tavoutil::sourceName(__FILE__);                    \
            tavoutil::writeRecord(trackLogger, log4cxx::Level::get##level(),                       \
                                  tavoutil::toLogText(message), trackSource.data(),                \
                                  static_cast<const char*>(__PRETTY_FUNCTION__), __LINE__);        \
        }                                                                                          \
    } while (false)

namespace tavoutil {

/// The name of @p path without its directories and from its first '_' or '.' on, zero-terminated.
template <std::size_t Size>
// NOLINTNEXTLINE(modernize-avoid-c-arrays): only a literal's own type carries its length
constexpr std::array<char, Size> sourceName(const char (&path)[Size])
{
    const std::string_view whole(path);
    const std::size_t slash = whole.rfind('/');
    const std::string_view file = slash == std::string_view::npos ? whole : whole.substr(slash + 1);
    std::array<char, Size> name{};
    for (std::size_t i = 0; i < file.size() && file[i] != '_' && file[i] != '.'; ++i) {
        name[i] = file[i];
    }
    return name;
}

/// A message's bytes as log4cxx takes them (UTF-8).
std::string toLogText(const QString& text);
std::string toLogText(const QByteArray& text);
inline std::string toLogText(std::string text)
{
    return text;
}
inline std::string toLogText(const char* text)
{
    return text;
}

/// Writes one record whatever the logger's level; the TRACK_ calls are the way to log.
void writeRecord(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level,
                 const std::string& text, const char* source, const char* signature, int line);

} // namespace tavoutil
