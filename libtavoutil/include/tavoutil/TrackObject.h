#pragma once

#include <atomic>

#include <log4cxx/logger.h>

/// Base of every class that writes log records: it owns the class's logger.
class TrackObject
{
public:
    /// ERROR and FATAL records of the whole process, including those of a level that is off.
    static std::atomic<unsigned int> sErrorCounter;
    static std::atomic<unsigned int> sFatalCounter;

    virtual ~TrackObject();

    /// Names the log channel. @p name is in the local 8-bit encoding and must not be empty.
    void initTrack(const char* name);

    /// The logger of the channel; the root logger until initTrack() has been called.
    const log4cxx::LoggerPtr& logger() const { return mLogger; }

protected:
    TrackObject();
    /// For objects that exist in large numbers: shares a logger that was looked up once.
    explicit TrackObject(log4cxx::LoggerPtr logger);
    TrackObject(const TrackObject&) = default;
    TrackObject(TrackObject&&) = default;
    TrackObject& operator=(const TrackObject&) = default;
    TrackObject& operator=(TrackObject&&) = default;

private:
    log4cxx::LoggerPtr mLogger;
};
