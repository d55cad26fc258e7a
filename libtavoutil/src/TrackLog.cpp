#include <tavoutil/TrackLog.h>

namespace tavoutil {

std::string toLogText(const QString& text)
{
    return text.toStdString();
}

std::string toLogText(const QByteArray& text)
{
    return text.toStdString();
}

void writeRecord(const log4cxx::LoggerPtr& logger, const log4cxx::LevelPtr& level,
                 const std::string& text, const RecordOrigin& origin, int line)
{
    // The text is UTF-8 already; the other calls would convert it from the locale's encoding.
    logger->forcedLogLS(
        level, text,
        log4cxx::spi::LocationInfo(origin.source, origin.source, origin.signature, line));
}

} // namespace tavoutil
