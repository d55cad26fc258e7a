// Writes log records with the tracking configuration that its argument names.
#include <cstdlib>
#include <iostream>

#include <tavoutil/TrackLog.h>
#include <tavoutil/TrackSystem.h>

namespace {

constexpr auto kTrackSource = "TrackingProgram";

class Tracked : public TrackObject
{
public:
    Tracked() { initTrack("config"); }
    void write() const { TRACK_ERROR(logger(), "broken"); }
};

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        return EXIT_FAILURE;
    }
    std::cout << (initializeTrackSystem(argv[1]) ? "usable" : "unusable") << std::endl;
    TRACK_INFO(log4cxx::Logger::getLogger("sdcard"), "gr\u00fcn \u20ac");
    Tracked().write();
    return EXIT_SUCCESS;
}
