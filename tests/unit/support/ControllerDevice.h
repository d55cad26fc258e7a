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

/// Stands in for the device around a controller: LEDs, button, tools, bus and card slot. At first
/// there is no card, the button is released, no process has open files, every tool succeeds and the
/// run level is 5.
class ControllerDevice
{
public:
    static const QString kMountPoint;
    static const QString kEjectButton;
    static const QString kJobDirectory;

    explicit ControllerDevice(const TestBus& bus);
    /// Ends the controller and clears the device. The machine must not have an error.
    ~ControllerDevice();
    ControllerDevice(const ControllerDevice&) = delete;
    ControllerDevice(ControllerDevice&&) = delete;
    ControllerDevice& operator=(const ControllerDevice&) = delete;
    ControllerDevice& operator=(ControllerDevice&&) = delete;

    /// Creates the controller. Its machine has not started yet.
    Sdcard& construct();
    /// Creates the controller and starts its machine.
    Sdcard& start();
    /// Creates the controller and brings its machine into a state.
    /// @param state the state's name as in machineState()
    Sdcard& startIn(const QString& state);
    /// Ends the controller.
    void destroy();

    /// Name of the machine's active state: "noSdCard", "forced_unmounting" ...
    QString machineState();
    /// Waits until the machine is in a state.
    bool waitForState(const QString& state);
    /// Lets the machine handle all pending events. A worker continues by itself.
    static void settle();
    /// One of the controller's timers, by its object name: "state timer", "memory timer" ...
    static QTimer& timer(Sdcard& controller, const char* name);
    /// Makes a timer expire.
    static void expire(QTimer& timer);

    /// A card that is already mounted when it is inserted, with @p usedPages of 100 pages used.
    static bool mountCard(int usedPages = 30);
    /// Lets lsof report a process that ends on SIGTERM.
    /// @return its id
    qint64 keepFilesOpen();
    /// Lets lsof report nothing.
    static void closeFiles();
    /// Inserts the card over the bus object and skips the delay.
    void insertCard();
    void removeCard();
    /// Sends the process a signal and lets the machine handle it.
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
