#include "ControllerDevice.h"

#include <csignal>

#include <QCoreApplication>
#include <QDir>
#include <QSocketNotifier>
#include <QStateMachine>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <unistd.h>

#include "BusNames.h"
#include "CardImage.h"
#include "SDCardImpl.h"
#include "TestDevice.h"
#include "TestProcess.h"

namespace {

const QString kConfigFile = QStringLiteral("/etc/tavo/tavo-sdcard.config.xml");
constexpr int kCardPages = 100;
constexpr int kWaitMs = 10000;
constexpr int kWorkerWaitMs = 5000;
constexpr int kRounds = 20;

void placeTools()
{
    ToolStandIn::putFirst();
    ToolStandIn::place(ToolStandIn::kE2fsck, "exit 0");
    ToolStandIn::place(ToolStandIn::kRunlevel, "echo N 5");
    ControllerDevice::closeFiles();
    ToolStandIn::place(ToolStandIn::kFormatScript, "exit 0");
    ToolStandIn::takeCalls();
    ToolStandIn::holdBack();
}

} // namespace

const QString ControllerDevice::kMountPoint = QStringLiteral("/media/sdcard");
const QString ControllerDevice::kEjectButton = QStringLiteral("/opt/tavo/tavodev/mmc1_eject/value");
const QString ControllerDevice::kJobDirectory =
    QStringLiteral("/opt/tavo/share/tavo-sdcard/preparing");

ControllerDevice::ControllerDevice(const TestBus& bus)
    : mConnection(bus.connection(QStringLiteral("service"))),
      mEffects(std::make_unique<EffectRecorder>(mLeds))
{
    static const bool hasSysfs = [] {
        CardImage::prepareSysfs();
        return true;
    }();
    Q_UNUSED(hasSysfs)
    placeTools();
    CardImage::writeDisk({CardImage::kLinux});
    TestDevice::writeFile(kEjectButton, "0\n");
    TestDevice::writeFile(kConfigFile,
                          "<sdcard mountpoint='" + kMountPoint.toUtf8() + "' devicepath='" +
                              CardImage::kPartition.toUtf8() +
                              "'><dir size='50' capacitywatch='true'>csv</dir></sdcard>");
}

ControllerDevice::~ControllerDevice()
{
    destroy();
    if (mFileHolder) {
        mFileHolder->kill();
        mFileHolder->waitForFinished();
    }
    TestDevice::unmountAll(kMountPoint);
    TestDevice::remove(kMountPoint);
    TestDevice::remove(kJobDirectory);
    TestDevice::remove(kEjectButton);
    CardImage::unlistMmcCard();
    CardImage::remove();
}

Sdcard& ControllerDevice::construct()
{
    mConfig = std::make_unique<ConfigHandler>();
    if (!mConfig->setup()) {
        qFatal("cannot read the configuration");
    }
    mEffects->take();
    mController = std::make_unique<Sdcard>(mConnection, *mConfig, nullptr);
    mEffects->follow(*mController);
    return *mController;
}

Sdcard& ControllerDevice::start()
{
    construct();
    settle();
    return *mController;
}

Sdcard& ControllerDevice::startIn(const QString& state)
{
    start();
    reach(state);
    if (!waitForState(state)) {
        qFatal("the machine is in state %s instead of %s", qPrintable(machineState()),
               qPrintable(state));
    }
    settle();
    mEffects->take();
    return *mController;
}

// Reaches every state on the same way as on the device.
void ControllerDevice::reach(const QString& state)
{
    if (state == "noSdCard") {
        return;
    }
    if (state == "terminating") {
        sendSignal(SIGTERM);
        return;
    }
    if (state == "mounting") {
        ToolStandIn::place(ToolStandIn::kE2fsck, ToolStandIn::kWait);
        insertCard();
        QTRY_COMPARE_WITH_TIMEOUT(service().state(), 6, kWaitMs);
        return;
    }
    if (state == "preparing") {
        ToolStandIn::place(kJobDirectory + "/job", ToolStandIn::kWait);
        if (!CardImage::createPartition()) {
            qFatal("cannot create a card");
        }
        insertCard();
        QTRY_VERIFY_WITH_TIMEOUT(ToolStandIn::calls().contains("job csv=/csv"), kWaitMs);
        return;
    }
    if (state == "notMoutable") {
        CardImage::writeBlankDisk();
        insertCard();
        return;
    }
    if (state == "corrupted") {
        // Not a block device, so that it cannot be mounted.
        TestDevice::writeFile(CardImage::kPartition, {});
        insertCard();
        return;
    }
    if (!mountCard()) {
        qFatal("cannot mount a card");
    }
    insertCard();
    if (!waitForState("mounted") || state == "mounted") {
        return;
    }
    if (state == "closingFiles") {
        keepFilesOpen();
        Q_EMIT mController->SD_EJECT();
    } else if (state == "unmounting") {
        Q_EMIT mController->SD_EJECT();
    } else {
        keepFilesOpen();
        sendSignal(SIGTERM);
        // The pending request would immediately leave the next states.
        mController->machine().findChild<QSocketNotifier*>()->blockSignals(true);
        if (state == "unmountingForTermination") {
            closeFiles();
            ControllerDevice::timer(*mController, "open-files timer").start(0);
        } else if (state == "forced_unmounting") {
            closeFiles();
            ControllerDevice::timer(*mController, "open-files timer").stop();
            expire(ControllerDevice::timer(*mController, "state timer"));
        }
    }
}

void ControllerDevice::destroy()
{
    if (!mController) {
        return;
    }
    const QStateMachine& machine = mController->machine();
    QCOMPARE(machine.error(), QStateMachine::NoError);
    ToolStandIn::letGo();
    for (QThread* const worker : mController->machine().findChildren<QThread*>()) {
        if (!worker->wait(kWorkerWaitMs)) {
            qFatal("the worker %s does not end", qPrintable(worker->objectName()));
        }
    }
    ToolStandIn::holdBack();
    mController.reset();
    mConnection.unregisterService(BusNames::kService);
    settle();
}

QString ControllerDevice::machineState()
{
    const QStateMachine& machine = mController->machine();
    QStringList active;
    for (const QAbstractState* const state : machine.configuration()) {
        if (state->parent() == &machine) {
            active.append(state->objectName());
        }
    }
    return active.join("+");
}

bool ControllerDevice::waitForState(const QString& state)
{
    return QTest::qWaitFor([&] { return machineState() == state; }, kWaitMs);
}

void ControllerDevice::settle()
{
    for (int round = 0; round < kRounds; ++round) {
        QCoreApplication::processEvents();
    }
}

QTimer& ControllerDevice::timer(Sdcard& controller, const char* name)
{
    return *controller.findChild<QTimer*>(QString::fromLatin1(name));
}

void ControllerDevice::expire(QTimer& timer)
{
    bool isExpired = false;
    const auto connection =
        QObject::connect(&timer, &QTimer::timeout, [&isExpired] { isExpired = true; });
    timer.start(0);
    QTRY_VERIFY_WITH_TIMEOUT(isExpired, kWaitMs);
    QObject::disconnect(connection);
    settle();
}

bool ControllerDevice::mountCard(int usedPages)
{
    const auto pageSize = ::sysconf(_SC_PAGESIZE);
    if (!TestDevice::mountTmpfs(kMountPoint, qint64{kCardPages} * pageSize)) {
        return false;
    }
    QDir().mkpath(kMountPoint + "/csv");
    TestDevice::writeFile(kMountPoint + "/filling",
                          QByteArray(static_cast<int>(usedPages * pageSize), 'x'));
    return true;
}

qint64 ControllerDevice::keepFilesOpen()
{
    mFileHolder = std::make_unique<TestProcess>();
    mFileHolder->start(QStringLiteral("sleep"), {"1000"});
    mFileHolder->waitForStarted();
    const qint64 id = mFileHolder->processId();
    const QByteArray text = QByteArray::number(id);
    ToolStandIn::place(ToolStandIn::kLsof, "kill -0 " + text + " && echo " + text + "\nexit 0");
    return id;
}

void ControllerDevice::closeFiles()
{
    ToolStandIn::place(ToolStandIn::kLsof, "exit 0");
}

void ControllerDevice::insertCard()
{
    service().InsertCard();
    expire(ControllerDevice::timer(*mController, "insert delay timer"));
}

void ControllerDevice::removeCard()
{
    service().RemoveCard();
    settle();
}

void ControllerDevice::sendSignal(int signalNumber)
{
    static_cast<void>(std::raise(signalNumber));
    mController->machine().findChild<QSocketNotifier*>()->blockSignals(false);
    settle();
}

SDCardImpl& ControllerDevice::service()
{
    return *mController->findChild<SDCardImpl*>();
}
