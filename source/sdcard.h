#pragma once

#include <array>
#include <optional>

#include <QByteArray>
#include <QDBusConnection>
#include <QDateTime>
#include <QFinalState>
#include <QObject>
#include <QSocketNotifier>
#include <QState>
#include <QStateMachine>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <csignal>

#include <tavoutil/TrackObject.h>

#include "CardStatus.h"
#include "SdcardInterface.h"
#include "StorageCapacityWatcher.h"

class ConfigHandler;
class SDCardImpl;
class StateMounting;
class StatePreparing;

/// The controller of the card's life: a state machine, the timers that bound its states, the
/// sources of its events, and the bus object that shows it. Lives on the main thread.
///
/// sdcard.cpp holds the machine and what its states do on entry; sdcard_events.cpp the signal
/// bridge, the button, hot plug and the trigger slots; sdcard_unmount.cpp the mount table, open
/// files and unmounting; sdcard_command.cpp the running of programs; sdcard_memory.cpp how full the
/// card is; sdcard_leds.cpp the LEDs; sdcard_hardware.cpp the look at the card at the start.
class Sdcard : public QObject, public TrackObject, public SdcardInterface
{
    Q_OBJECT

public:
    /// How a mount point stands in the mount table.
    enum class MountState : int
    {
        Unclear = 0,    ///< listed, but neither as "rw" nor as "ro"
        NotMounted = 1, ///< not listed, or the table cannot be read
        ReadOnly = 2,
        ReadWrite = 3
    };

    /// How much checkOpenFiles() writes to the log.
    enum class eLogLevel : int
    {
        Silent = 0,
        Processes = 1, ///< the processes that hold files open
        Files = 2      ///< these, and each file
    };

    /// Looks at the hardware, takes the bus name and starts the machine.
    /// @param config must outlive the controller; its setup() is done
    Sdcard(QDBusConnection& bus, ConfigHandler& config, QObject* parent);
    Sdcard(const Sdcard&) = delete;
    Sdcard& operator=(const Sdcard&) = delete;
    ~Sdcard() override;

    /// Whether the bus object could be registered.
    bool isServiceRegistered() const { return mServiceRegistered; }

    qint64 getDirSize(const QString& id) override;
    qint64 getDirUsed(const QString& id) override;
    QString getDirPath(const QString& id) override;
    bool ensureDirSize(const QString& id) override;

    /// Runs an external program, without a shell, and waits for it. Safe on any thread.
    /// @param logger receives the errors and, where @p verbose, the command line and its output
    /// @param timeoutMs how long the started program may take
    /// @return its exit code, or -1 when it did not start, crashed or took too long; then it is
    /// gone
    static int runCMD(log4cxx::LoggerPtr logger, const QString& program,
                      const QStringList& arguments, bool verbose, int timeoutMs);
    /// The same on the main thread, logging to the controller's channel.
    /// @param output receives the standard output; left as it is where -1 is returned
    int runCMD(const QString& program, const QStringList& arguments, QByteArray& output,
               bool verbose, int timeoutMs);

    /// Looks the mount point up in the mount table as plain text: the first line that contains it
    /// decides, and "rw" or "ro" anywhere in that line.
    /// @param logger without effect, kept for callers
    static MountState getMountState(const log4cxx::LoggerPtr& logger, const QString& mountPoint);

    /// Unmounts @p path and removes the mount point directory.
    /// @param force without effect, kept for callers: the forced path ends the processes first
    /// @return false when it could not be unmounted or the directory not be removed
    bool umountDevice(const QString& path, bool force);

    /// Finds the processes that hold files below @p mountPoint open. Before that it makes the
    /// capacity runs end, and waits up to 3 s for them.
    /// @param processIds the ids found are appended
    /// @return 0, or -1 when they cannot be found out
    int checkOpenFiles(const QString& mountPoint, QVector<int>& processIds,
                       const eLogLevel& logLevel);

    /// The used share of the file system at @p mountPoint in whole percent, rounded up; 0 when none
    /// is mounted or it cannot be asked.
    static int usedPercentage(const QString& mountPoint);

Q_SIGNALS:
    void ADD_DEVICE();
    void REMOVE_DEVICE();
    void SD_INSERT();
    void SD_REMOVE();
    // The next four are driven by the worker states' signals of the same names; nothing emits them
    // here. They are part of the published meta-object.
    void START_PREPARE();
    void MOUNT_SUCCESS();
    void MOUNT_FAILED();
    void MOUNT_CORRUPT();
    void UMOUNT_SUCCESS();
    void UNMOUNT_FAILED();
    void SD_EJECT();
    void FILES_CLOSED();

    // The order of signals and slots is published.
public Q_SLOTS:
    void checkMemState() override;
    void addBlockDevice();
    void removeBlockDevice();
    void noSdCard();
    void mounted();
    void mount_exited();
    void unmounting();
    void forced_unmounting();
    void corrupted();
    void terminating();
    void closingFiles();
    void closingFiles_exited();
    void notMoutable();
    void cardInsertedTriggered();
    void cardRemovedTriggered();
    void cardEjectTriggered();
    // These three never run: see the signals. What is to follow a mount belongs into mounted().
    void mountSuccessTriggered();
    void mountFailedTriggered();
    void mountCorruptTriggered();
    void umountSuccessTriggered(); ///< nothing is left to do; kept for the published meta-object
    void unmountFailedTriggered();
    void filesClosedTriggered();
    void timeoutTriggered();
    void checkFiles();
    void checkSDcardPresent();
    void readInputDevice();
    void setFsBirthDate(const QDateTime& birth);
    void setMountingState();

private:
    struct TransitionRow;
    struct HandlerRow;
    struct LedWrite;
    /// What the two LEDs show together.
    enum class LedPattern
    {
        Off,
        Mounted,
        Busy,
        Unmounted,
        NotMountable
    };

    void registerBusObject(QDBusConnection& bus);
    void buildMachine();
    void addTransitions();
    void connectHandlers();
    void connectTriggers();

    void registerSignalHandler();
    void unregisterSignalHandler();
    static void signalHandler(int signalNumber);
    static bool hasEjectButton();
    bool isSystemRebooting();

    void checkHardware();
    bool writeLed(const QString& file, const QString& value) const;
    void showPattern(LedPattern pattern) const;

    void setState(State state);
    void setTransition(Transition transition);
    void setMemState(MemState memState);
    void setBusyState(State state);
    void setUnmountedState();

    void logOpenFiles(const QString& mountPoint, const QByteArray& processId);
    void terminateProcesses(const QString& mountPoint);
    void killProcesses(const QString& mountPoint);

    /// Ends of the socket pair that carries signals into the event loop: [0] is written, [1] is
    /// read.
    static std::array<int, 2> mSignalFd;

    SDCardImpl* mService = nullptr;
    ConfigHandler& mConfig;
    StorageCapacityWatcher mCapacityWatcher;
    bool mServiceRegistered = false;
    QDateTime mFsBirthTime;
    QTimer mStateTimer;
    QTimer mOpenFilesTimer;
    quint32 mOpenFilesChecks = 0; ///< how often the present wait has looked; tests read it
    QTimer mMemoryTimer;
    QTimer mInsertDelayTimer;
    QTimer mEjectPollTimer;
    int mEjectPressCount = 0;
    QSocketNotifier* mSignalNotifier = nullptr;
    std::optional<struct sigaction> mPreviousHupAction;
    std::optional<struct sigaction> mPreviousTermAction;
    QStateMachine mMachine;

    QState* mNoSdCardState = nullptr;
    StateMounting* mMountingState = nullptr;
    StatePreparing* mPreparingState = nullptr;
    QState* mMountedState = nullptr;
    QState* mNotMoutableState = nullptr;
    QState* mClosingFilesState = nullptr;
    QState* mClosingFilesForTerminationState = nullptr;
    QState* mUnmountingState = nullptr;
    QState* mUnmountingForTerminationState = nullptr;
    QState* mForcedUnmountingState = nullptr;
    QState* mCorruptedState = nullptr;
    QFinalState* mTerminatingState = nullptr;

    QString mRedBrightnessFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-red/brightness");
    QString mRedTriggerFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-red/trigger");
    QString mRedDelayOnFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-red/delay_on");
    QString mRedDelayOffFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-red/delay_off");
    QString mGreenBrightnessFile =
        QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-green/brightness");
    QString mGreenTriggerFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-green/trigger");
    QString mGreenDelayOnFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-green/delay_on");
    QString mGreenDelayOffFile = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-green/delay_off");
    QString mLedOn = QStringLiteral("255");
    QString mLedOff = QStringLiteral("0");
    QString mFastBlinkMs = QStringLiteral("100");
    QString mSlowBlinkMs = QStringLiteral("500");
    QString mBlinkTrigger = QStringLiteral("timer");
    QString mCardActivityTrigger = QStringLiteral("mmc0");
};
