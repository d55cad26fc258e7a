#pragma once

#include <string>

#include <QByteArray>
#include <QString>

#include <log4cxx/logger.h>

#include <tavoutil/TrackObject.h>

/// The logging calls. Each takes the logger and the message, which may be a QString, a QByteArray,
/// a std::string or a literal:
///
///     TRACK_INFO(logger(), "Executing '" + commandLine + "'...");
///
/// The record's location carries the source name, which each file that logs states once, and the
/// calling function's full signature:
///
///     constexpr auto kTrackSource = "sdcard";
///
/// The message is built only if the level is enabled. An ERROR or FATAL call always counts.
#define TRACK_INFO(logger, message) TRACK_RECORD_(logger, Info, message, TRACK_HERE)
#define TRACK_WARN(logger, message) TRACK_RECORD_(logger, Warn, message, TRACK_HERE)
#define TRACK_ERROR(logger, message) TRACK_ERROR_FROM(TRACK_HERE, logger, message)
#define TRACK_FATAL(logger, message)                                                               \
    do {                                                                                           \
        ++TrackObject::sFatalCounter;                                                              \
        TRACK_RECORD_(logger, Fatal, message, TRACK_HERE);                                         \
    } while (false)

/// The same for a helper that does the work of a published function: the record names that
/// function.
/// @param origin a tavoutil::RecordOrigin
#define TRACK_INFO_FROM(origin, logger, message) TRACK_RECORD_(logger, Info, message, origin)
#define TRACK_WARN_FROM(origin, logger, message) TRACK_RECORD_(logger, Warn, message, origin)
#define TRACK_ERROR_FROM(origin, logger, message)                                                  \
    do {                                                                                           \
        ++TrackObject::sErrorCounter;                                                              \
        TRACK_RECORD_(logger, Error, message, origin);                                             \
    } while (false)

/// The origin of a record in the calling function.
#define TRACK_HERE                                                                                 \
    (tavoutil::RecordOrigin{kTrackSource, static_cast<const char*>(__PRETTY_FUNCTION__)})

#define TRACK_RECORD_(logger, level, message, origin)                                              \
    do {                                                                                           \
        const log4cxx::LoggerPtr& trackLogger = (logger);                                          \
        if (trackLogger->is##level##Enabled()) {                                                   \
            tavoutil::writeRecord(trackLogger, log4cxx::Level::get##level(),                       \
                                  tavoutil::toLogText(message), origin, __LINE__);                 \
        }                                                                                          \
    } while (false)

namespace tavoutil {

/// The function that a record names as its origin.
struct RecordOrigin
{
    const char* source;    ///< name of the unit
    const char* signature; ///< full, as the compiler spells it
};

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
                 const std::string& text, const RecordOrigin& origin, int line);

} // namespace tavoutil
