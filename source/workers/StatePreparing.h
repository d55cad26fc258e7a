#pragma once

#include <QString>

#include <tavoutil/TrackObject.h>

#include "ThreadStateBase.h"
#include "WorkerState.h"
#include "config.h"

/// The state that applies the layout to the mounted card and moves other services' data to it. It
/// always ends with MOUNT_SUCCESS, even if its worker fails.
class StatePreparing : public WorkerState
{
    Q_OBJECT

public:
    explicit StatePreparing(const ConfigHandler& config);
    StatePreparing(const StatePreparing&) = delete;
    StatePreparing& operator=(const StatePreparing&) = delete;
    ~StatePreparing() override;

Q_SIGNALS:
    void MOUNT_SUCCESS();
};

/// The worker of StatePreparing.
class ThreadPreparing : public ThreadStateBase, public TrackObject
{
    Q_OBJECT

public:
    /// @param config read-only while the worker runs
    /// @param parent the owning StatePreparing
    ThreadPreparing(const ConfigHandler& config, QObject* parent);
    ThreadPreparing(const ThreadPreparing&) = delete;
    ThreadPreparing& operator=(const ThreadPreparing&) = delete;
    ~ThreadPreparing() override;

    /// Moves the logger service's database, journal and files from the card's root into the
    /// configured directory "logger". Existing files stay unchanged.
    void prepareJobRelocateDatabase(const QString& mountPoint) const;

    /// Moves files from the doubled path of the configured directory "csv" into that directory and
    /// removes the doubled tree.
    void prepareJobRelocateCsv(const QString& mountPoint) const;

protected:
    void run() override;

private:
    void runPreparingScripts() const;

    QString mJobDir = QStringLiteral("/opt/tavo/share/tavo-sdcard/preparing");
    const ConfigHandler& mConfig;
};
