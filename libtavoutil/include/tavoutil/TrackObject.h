#pragma once

#include <atomic>

#include <log4cxx/logger.h>

/// Base of every class that writes log records: it owns the class's logger.
class TrackObject
{
public:
    /// ERROR and FATAL records of the whole process, counted also where their level is switched
    /// off.
    static std::atomic<unsigned int> sErrorCounter;
    static std::atomic<unsigned int> sFatalCounter;

    virtual ~TrackObject();

    /// Names the log channel. @p name is in the local 8-bit encoding and must not be empty.
    void initTrack(const char* name);

    /// The logger of the channel; the root logger until initTrack() has been called.
    const log4cxx::LoggerPtr& logger() const { return mLogger; }

protected:
    TrackObject();
    /// For records that exist in great number: shares a logger that was looked up once.
    explicit TrackObject(log4cxx::LoggerPtr logger);
    TrackObject(const TrackObject&) = default;
    TrackObject(TrackObject&&) = default;
    TrackObject& operator=(const TrackObject&) = default;
    TrackObject& operator=(TrackObject&&) = default;

private:
    log4cxx::LoggerPtr mLogger;
};
