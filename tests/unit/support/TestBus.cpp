#include "TestBus.h"

#include "TestDevice.h"
#include "TestProcess.h"

namespace {

const QString kConfigFile = QStringLiteral("/run/test-bus.conf");
constexpr auto kConfig = R"(<!DOCTYPE busconfig PUBLIC
  "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
  "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:tmpdir=/run</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

} // namespace

TestBus::TestBus() : mDaemon(std::make_unique<TestProcess>())
{
    TestDevice::writeFile(kConfigFile, kConfig);
    mDaemon->start(QStringLiteral("dbus-daemon"),
                   {"--nofork", "--nosyslog", "--print-address", "--config-file=" + kConfigFile});
    while (!mDaemon->canReadLine() && mDaemon->waitForReadyRead()) {
    }
    mAddress = QString::fromLatin1(mDaemon->readLine()).trimmed();
    if (mAddress.isEmpty()) {
        qFatal("cannot start a message bus: %s", mDaemon->readAllStandardError().constData());
    }
}

TestBus::~TestBus()
{
    mDaemon->terminate();
    mDaemon->waitForFinished();
}

QDBusConnection TestBus::connection(const QString& name) const
{
    const QDBusConnection known(name);
    return known.isConnected() ? known : QDBusConnection::connectToBus(mAddress, name);
}
