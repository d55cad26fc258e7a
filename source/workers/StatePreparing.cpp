#include "StatePreparing.h"

#include <QDir>

#include <tavoutil/TrackLog.h>

#include "ProgramRunner.h"
#include "Relocation.h"

namespace {

constexpr auto kTrackSource = "StatePreparing";

constexpr int kScriptTimeoutMs = 600000;

} // namespace

StatePreparing::StatePreparing(const ConfigHandler& config)
    : mRunning(new QState(this)), mFinished(new QFinalState(this)),
      mWorker(new ThreadPreparing(config, this))
{
    mRunning->addTransition(new WorkerFinishedTransition(mWorker, mFinished));
    // Not on this state's own entry, where nobody listens yet: a worker may end at once.
    connect(mRunning, &QState::entered, mWorker,
            [this] { mWorker->start(QThread::InheritPriority); });
    setInitialState(mRunning);
    connect(this, &QState::finished, this, &StatePreparing::MOUNT_SUCCESS);
}

StatePreparing::~StatePreparing() = default;

void StatePreparing::onExit(QEvent* /*event*/)
{
    if (mWorker->isUnderWay()) {
        mWorker->requestStop();
    }
}

ThreadPreparing::ThreadPreparing(const ConfigHandler& config, QObject* parent)
    : ThreadStateBase(parent), mConfig(config)
{
    setupTrackAndThreadName(*this);
}

ThreadPreparing::~ThreadPreparing()
{
    // Here and not only in the base: a run in progress uses this object.
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
