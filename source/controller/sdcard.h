#pragma once

#include <QByteArray>
#include <QDBusConnection>
#include <QDateTime>
#include <QFinalState>
#include <QObject>
#include <QState>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <tavoutil/TrackObject.h>

#include "CardMachine.h"
#include "CardStatus.h"
#include "EjectButton.h"
#include "FormatEcho.h"
#include "MountTable.h"
#include "OpenFiles.h"
#include "SdcardInterface.h"
#include "StorageCapacityWatcher.h"
#include "TerminationSignals.h"
#include "config.h"

class SDCardImpl;
class StateMounting;
class StatePreparing;

/// The controller of the card's life: a state machine, the timers that bound its states, and the
/// actions on each state and event. Lives on the main thread. Its helpers report; the controller
/// decides and logs.
class Sdcard : public QObject, public TrackObject, public SdcardInterface
{
    Q_OBJECT

public:
    /// How much checkOpenFiles() writes to the log.
    enum class eLogLevel : int
    {
        Silent = 0,
        Processes = 1, ///< the processes with open files
        Files = 2      ///< the processes and each file
    };

    /// Looks at the hardware, takes the bus name and starts the machine.
    /// @param config must outlive the controller; its setup() is done
    Sdcard(QDBusConnection& bus, ConfigHandler& config, QObject* parent);
    Q_DISABLE_COPY(Sdcard)
    ~Sdcard() override;

    /// Whether the bus object could be registered.
    bool isServiceRegistered() const { return mServiceRegistered; }

    qint64 getDirSize(const QString& id) override { return mConfig.getDirSize(id); }
    qint64 getDirUsed(const QString& id) override { return mConfig.getDirUsed(id); }
    QString getDirPath(const QString& id) override { return mConfig.getDirPath(id); }
    bool ensureDirSize(const QString& id) override { return mCapacityWatcher.ensureDirSize(id); }

    // Published names that forward to other rooms: ProgramRunner::run() and mountStateOf().
    static int runCMD(log4cxx::LoggerPtr logger, const QString& program,
                      const QStringList& arguments, bool verbose, int timeoutMs);
    int runCMD(const QString& program, const QStringList& arguments, QByteArray& output,
               bool verbose, int timeoutMs);
    static MountState getMountState(const log4cxx::LoggerPtr& logger, const QString& mountPoint);

    /// Unmounts @p path and removes the mount point directory.
    /// @param force without effect: on the forced path the processes have already been ended
    /// @return false if the unmount or the removal of the directory failed
    bool umountDevice(const QString& path, bool force);

    /// Finds the processes with open files below @p mountPoint.
    /// @param processIds the ids found are appended
    /// @return 0, or -1 if lsof fails
    int checkOpenFiles(const QString& mountPoint, QVector<int>& processIds,
                       const eLogLevel& logLevel);

    /// The machine, for inspection. The object names of its states are those in the table of
    /// states.
    const QStateMachine& machine() const { return mMachine; }

Q_SIGNALS:
    void ADD_DEVICE();
    void REMOVE_DEVICE();
    void SD_INSERT();
    void SD_REMOVE();
    // The signals of the same names of the worker states drive the next four; nothing emits them
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
    void closingFiles_exited() { mOpenFilesTimer.stop(); }
    void notMoutable();
    void cardInsertedTriggered();
    void cardRemovedTriggered();
    void cardEjectTriggered();
    // These three never run: see the signals. Actions after a mount belong into mounted().
    void mountSuccessTriggered();
    void mountFailedTriggered();
    void mountCorruptTriggered();
    void umountSuccessTriggered() {}
    void unmountFailedTriggered();
    void filesClosedTriggered();
    void timeoutTriggered();
    void checkFiles();
    void checkSDcardPresent();
    void readInputDevice();
    void setFsBirthDate(const QDateTime& birth) { mFormatEcho.setBirth(birth); }
    void setMountingState() { setBusyState(State::Mounting); }

private:
    void checkHardware();
    void registerBusObject(QDBusConnection& bus);
    void lookForCardAnew();
    void registerSignalHandler();
    void setUpTimers();
    void buildMachine();
    void connectTriggers();
    bool isSystemRebooting();
    bool areFilesClosed(eLogLevel logLevel);
    void setBusyState(State state);
    void setUnmountedState();
    bool beginUnmounting();
    void finishUnmounting(bool force);

    SDCardImpl* mService = nullptr;
    ConfigHandler& mConfig;
    StorageCapacityWatcher mCapacityWatcher;
    bool mServiceRegistered = false;
    FormatEcho mFormatEcho;
    QTimer mStateTimer{this};
    QTimer mOpenFilesTimer{this};
    QTimer mMemoryTimer{this};
    QTimer mInsertDelayTimer{this};
    QTimer mEjectPollTimer{this};
    EjectButton mEjectButton;
    TerminationSignals mTerminationSignals;
    OpenFiles mOpenFiles{this, *this};
    CardMachine mMachine;
    StateMounting* mMountingState = nullptr;
    StatePreparing* mPreparingState = nullptr;
};
