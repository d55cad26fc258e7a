#include "StatePreparing.h"

#include <QDir>

#include <tavoutil/TrackLog.h>

#include "ProgramRunner.h"
#include "Relocation.h"
#include "UnpreparedMark.h"

namespace {

constexpr auto kTrackSource = "StatePreparing";

constexpr int kScriptTimeoutMs = 600000;

} // namespace

StatePreparing::StatePreparing(const ConfigHandler& config)
{
    setWorker(new ThreadPreparing(config, this));
    connect(this, &QState::finished, this, &StatePreparing::MOUNT_SUCCESS);
}

StatePreparing::~StatePreparing() = default;

ThreadPreparing::ThreadPreparing(const ConfigHandler& config, QObject* parent)
    : ThreadStateBase(parent), mConfig(config)
{
    setupTrackAndThreadName(*this);
}

ThreadPreparing::~ThreadPreparing()
{
    // Not only in the base: a run in progress uses this object.
    terminateIfRunning();
}

void ThreadPreparing::run()
{
    if (!mConfig.applyConfigLayout()) {
        TRACK_WARN(logger(), "Cannot apply sdcard layout");
    }
    if (isStopRequested()) {
        return;
    }
    prepareJobRelocateDatabase(mConfig.mountPoint());
    if (isStopRequested()) {
        return;
    }
    prepareJobRelocateCsv(mConfig.mountPoint());
    if (isStopRequested()) {
        return;
    }
    runPreparingScripts();
    if (!isStopRequested()) {
        UnpreparedMark::clear();
    }
}

void ThreadPreparing::prepareJobRelocateDatabase(const QString& mountPoint) const
{
    Relocation(mConfig, mountPoint, logger()).moveDatabase();
}

void ThreadPreparing::prepareJobRelocateCsv(const QString& mountPoint) const
{
    Relocation(mConfig, mountPoint, logger()).moveCsvFiles();
}

void ThreadPreparing::runPreparingScripts() const
{
    const QFileInfoList scripts = QDir(mJobDir).entryInfoList(
        QDir::Files | QDir::Executable | QDir::NoSymLinks | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& script : scripts) {
        if (isStopRequested()) {
            return;
        }
        ProgramRunner::run(logger(), script.absoluteFilePath(), mConfig.dirEntries(), true,
                           kScriptTimeoutMs);
    }
}
