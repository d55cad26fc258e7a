#include <tavoutil/TrackObject.h>

#include <utility>

std::atomic<unsigned int> TrackObject::sErrorCounter{0};
std::atomic<unsigned int> TrackObject::sFatalCounter{0};

TrackObject::TrackObject() : mLogger(log4cxx::Logger::getRootLogger()) {}

TrackObject::TrackObject(log4cxx::LoggerPtr logger) : mLogger(std::move(logger)) {}

TrackObject::~TrackObject() = default;

void TrackObject::initTrack(const char* name)
{
    mLogger = log4cxx::Logger::getLogger(name);
}
