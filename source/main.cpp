#include <libgen.h>

#include <optional>
#include <string>

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QFile>
#include <QTextStream>

#include <fcntl.h>
#include <unistd.h>

#include <tavoutil/SignalHandler.h>
#include <tavoutil/TrackLog.h>
#include <tavoutil/TrackSystem.h>

#include "BusNames.h"
#include "ConfigFileLookup.h"
#include "InstanceLock.h"
#include "VersionRecord.h"
#include "config.h"
#include "sdcard.h"

namespace {

constexpr auto kTrackSource = "main";

constexpr int kFailure = 1;

QString applicationVersion()
{
    // A fixed name: other programs compare the text that contains it.
    return VersionRecord{QVersionNumber::fromString(QStringLiteral(SDCARDD_VERSION)),
                         QStringLiteral("yocto"), false, 0}
        .toString();
}

// Enables the logger of udev events. Devices without that logger lack the file.
void resumeDeviceEvents()
{
    const int fd = ::open("/proc/tavo-logger/suspendudev", O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(fd, "0", 1);
        ::close(fd);
    }
}

// The objects of a run, in order of construction. They are destroyed in reverse.
struct Service
{
    InstanceLock lock;
    std::optional<ConfigHandler> config;
    std::optional<QDBusConnection> bus;
    std::optional<Sdcard> sdcard;
};

int run(Service& service, QCoreApplication& application, const QCommandLineParser& parser,
        const QCommandLineOption& configOption, const log4cxx::LoggerPtr& logger)
{
    service.config.emplace();
    if (parser.isSet(configOption)) {
        const QString configFile = parser.value(configOption);
        if (!QFile::exists(configFile)) {
            QTextStream(stderr) << "Abort. Media configuration file '" << configFile
                                << "' not found\n";
            return kFailure;
        }
        service.config->setConfigFile(configFile);
    }
    if (!service.config->setup()) {
        TRACK_ERROR(logger, "Could not setup configuration handler");
        return kFailure;
    }

    QDBusConnection& bus = service.bus.emplace(QDBusConnection::systemBus());
    if (!bus.isConnected()) {
        // Qt names the connection "qt_default_system_bus".
        TRACK_FATAL(logger,
                    "Cannot connect to the D-Bus " + bus.name().section('_', 2, 2) + " bus");
        return kFailure;
    }
    // The bus name does not reveal another instance that has lost the bus.
    if (service.lock.isTaken() && !bus.interface()->isServiceRegistered(BusNames::kService)) {
        TRACK_ERROR(logger, "Another instance of the service is using the card");
        return kFailure;
    }
    service.sdcard.emplace(bus, *service.config, &application);
    if (!service.sdcard->isServiceRegistered()) {
        TRACK_ERROR(logger, "Could not start D-Bus service: " + bus.lastError().message());
        return kFailure;
    }
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char* argv[])
{
    std::string program = argv[0];
    if (installSignalHandler(QFile::decodeName(::basename(program.data()))) == -1) {
        QTextStream(stderr) << "Abort. Cannot install signal handler, see systemlog for details.\n";
        return kFailure;
    }

    // GLib's event loop has no unwind tables on the device: an exception from a slot would end the
    // process there and not reach the handler below.
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(applicationVersion());

    const QCommandLineOption trackOption(QStringLiteral("track"),
                                         QStringLiteral("track configuration file"),
                                         QStringLiteral("filename"));
    const QCommandLineOption configOption(QStringLiteral("config"),
                                          QStringLiteral("media configuration file"),
                                          QStringLiteral("filename"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Service to mount/unmount SD Card and handle events."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption(trackOption);
    parser.addOption(configOption);
    parser.process(application);

    QTextStream errors(stderr);
    const QString trackFile = ConfigFileLookup::find(QStringLiteral("tavo-sdcard.trackconfig.xml"),
                                                     trackOption, parser, errors);
    if (trackFile.isEmpty()) {
        return kFailure;
    }
    initializeTrackSystem(trackFile.toLocal8Bit().toStdString());
    const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("sdcard");
    TRACK_INFO(logger, "Starting (Version " + QCoreApplication::applicationVersion() + ", Build " +
                           __DATE__ + " " + __TIME__ + ")");

    int status = kFailure;
    {
        Service service;
        try {
            resumeDeviceEvents();
            status = run(service, application, parser, configOption, logger);
        } catch (...) {
            TRACK_FATAL(logger, "Unhandled Exception catched!");
        }
    }
    TRACK_INFO(logger, "Terminating " + QCoreApplication::applicationName() + " with exit code " +
                           QString::number(status));
    return status;
}
