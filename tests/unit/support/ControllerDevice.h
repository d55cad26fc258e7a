#pragma once

#include <memory>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include "EffectRecorder.h"
#include "LedRecorder.h"
#include "TestBus.h"
#include "ToolStandIn.h"
#include "config.h"
#include "sdcard.h"

class QTimer;
class SDCardImpl;
class TestProcess;

/// Stands in for the device around a controller: LEDs, button, tools, bus and card slot. In the
/// beginning there is no card, the button is released, no process has files open, every tool
/// succeeds and run level 5 is in force.
class ControllerDevice
{
public:
    static const QString kMountPoint;
    static const QString kEjectButton;
    static const QString kJobDirectory;

    explicit ControllerDevice(const TestBus& bus);
    /// Ends the controller, whose machine must be without error, and clears the device.
    ~ControllerDevice();
    ControllerDevice(const ControllerDevice&) = delete;
    ControllerDevice(ControllerDevice&&) = delete;
    ControllerDevice& operator=(const ControllerDevice&) = delete;
    ControllerDevice& operator=(ControllerDevice&&) = delete;

    /// Creates the controller, whose machine is about to start.
    Sdcard& construct();
    /// Creates the controller and lets its machine start.
    Sdcard& start();
    /// Creates the controller and brings its machine into a state.
    /// @param state the state's name as machineState() gives it
    Sdcard& startIn(const QString& state);
    /// Ends the controller.
    void destroy();

    /// Name of the machine's active state: "noSdCard", "forced_unmounting" ...
    QString machineState();
    /// Waits until the machine is in a state.
    bool waitForState(const QString& state);
    /// Lets the machine handle what has been sent to it. A worker goes on by itself.
    static void settle();
    /// One of the controller's timers, by its name: "state timer", "memory timer" ...
    static QTimer& timer(Sdcard& controller, const char* name);
    /// Lets a timer's time pass.
    static void expire(QTimer& timer);

    /// A card that is mounted already when it is inserted, of 100 pages of which @p usedPages are
    /// used.
    static bool mountCard(int usedPages = 30);
    /// Lets lsof report a process that ends on SIGTERM.
    /// @return its id
    qint64 keepFilesOpen();
    /// Lets lsof report nothing.
    static void closeFiles();
    /// Inserts the card over the bus object, without the delay.
    void insertCard();
    void removeCard();
    /// Sends the process a signal and lets the machine see it.
    void sendSignal(int signalNumber);

    Sdcard& controller() { return *mController; }
    SDCardImpl& service();
    EffectRecorder& effects() { return *mEffects; }
    LedRecorder& leds() { return mLeds; }
    QDBusConnection& connection() { return mConnection; }

private:
    void reach(const QString& state);

    QDBusConnection mConnection;
    LedRecorder mLeds;
    std::unique_ptr<EffectRecorder> mEffects;
    std::unique_ptr<TestProcess> mFileHolder;
    std::unique_ptr<ConfigHandler> mConfig;
    std::unique_ptr<Sdcard> mController;
};
