#include "PrivateBus.h"

namespace {

const QString kConfiguration = QStringLiteral(
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
    "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
    "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
    "<policy context=\"default\"><allow own=\"*\"/><allow send_destination=\"*\"/><allow "
    "receive_sender=\"*\"/>%1"
    "</policy></busconfig>");

} // namespace

PrivateBus::PrivateBus(const QString& policy)
{
    if (!mConfiguration.open()) {
        return;
    }
    mConfiguration.write(kConfiguration.arg(policy).toUtf8());
    mConfiguration.flush();
    mDaemon.start(QStringLiteral("dbus-daemon"),
                  {"--nofork", "--nopidfile", "--nosyslog", "--print-address",
                   "--config-file=" + mConfiguration.fileName()});
    while (!mDaemon.canReadLine() && mDaemon.waitForReadyRead()) {
    }
    mAddress = QString::fromUtf8(mDaemon.readLine()).trimmed();
    if (mAddress.isEmpty()) {
        qFatal("cannot start a message bus: %s", mDaemon.readAllStandardError().constData());
    }
    QDBusConnection::connectToBus(mAddress, mAddress);
}

PrivateBus::~PrivateBus()
{
    stop();
}

void PrivateBus::stop()
{
    QDBusConnection::disconnectFromBus(mAddress);
    mDaemon.kill();
    mDaemon.waitForFinished();
}
