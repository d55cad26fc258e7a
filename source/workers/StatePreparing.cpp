#include "StatePreparing.h"

#include <array>
#include <cstdlib>

#include <QDir>
#include <QFile>
#include <QProcess>

#include <tavoutil/TrackLog.h>

#include "ProgramRunner.h"
#include "UnpreparedMark.h"

namespace {

constexpr auto kTrackSource = "StatePreparing";

const QString kMoveCmd = QStringLiteral("/bin/mv");
const QString kRemoveTreeCmd = QStringLiteral("/bin/rm -r");
constexpr int kScriptTimeoutMs = 600000;

struct LoggerItem
{
    const char* path;        // below the old and the new directory
    const char* description; // as the records name it
};

constexpr std::array<LoggerItem, 3> kLoggerItems{{
    {"/PindleLogger.db", "logger database"},
    {"/PindleLogger.db-journal", "logger database journal"},
    {"/LoggerFiles", "logger files folder"},
}};

// Runs a command line in the shell; false where it does not end with status 0.
bool runInShell(const QString& commandLine)
{
    // The patterns in the command line are for the shell to expand.
    return std::system(commandLine.toLocal8Bit().constData()) == 0; // NOLINT(cert-env33-c)
}

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
    if (!isStopRequested()) {
        UnpreparedMark::clear();
    }
}

void ThreadPreparing::prepareJobRelocateDatabase(const QString& mountPoint) const
{
    const QString loggerPath = mConfig.getDirPath(QStringLiteral("logger"));
    if (loggerPath.isEmpty()) {
        return;
    }
    const QString newDir = mountPoint + loggerPath;
    TRACK_INFO(logger(), "Logger directory is '" + newDir + "'");
    for (const LoggerItem& item : kLoggerItems) {
        const QString source = mountPoint + item.path;
        const QString target = newDir + item.path;
        if (!QFile::exists(source) || QFile::exists(target)) {
            continue;
        }
        if (QProcess::execute(kMoveCmd, {source, target}) == 0) {
            TRACK_INFO(logger(), std::string("Succesffully moved ") + item.description +
                                     " into new location");
        } else {
            TRACK_ERROR(logger(),
                        std::string("Failed to moved ") + item.description + " into new location");
        }
    }
}

void ThreadPreparing::prepareJobRelocateCsv(const QString& mountPoint) const
{
    const QString csvPath = mConfig.getDirPath(QStringLiteral("csv"));
    if (csvPath.isEmpty()) {
        return;
    }
    const QString newDir = mountPoint + csvPath;
    const QString doubledDir = newDir + newDir;
    // Fixed, whatever the mount point is.
    const QString topDir = newDir + "/media";
    if (!QFile::exists(doubledDir)) {
        return;
    }
    TRACK_INFO(logger(), "move File From " + doubledDir + " to " + newDir);
    if (!runInShell(kMoveCmd + " " + doubledDir + "/*/* " + newDir)) {
        TRACK_ERROR(logger(), "Failed moveing csv files into new location");
        return;
    }
    TRACK_INFO(logger(), "Succesffully moved csv files into new location");
    removeDoubledCsvTree(doubledDir, topDir);
}

void ThreadPreparing::removeDoubledCsvTree(const QString& doubledDir, const QString& topDir) const
{
    bool isEmpty = true;
    const QFileInfoList subDirs =
        QDir(doubledDir).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo& subDir : subDirs) {
        const QDir dir(subDir.filePath());
        if (!dir.entryList(QDir::Files, QDir::Unsorted).isEmpty()) {
            TRACK_ERROR(logger(), "old Dirs are not emtpy");
            isEmpty = false;
        }
    }
    if (!isEmpty) {
        return;
    }
    TRACK_INFO(logger(), "Delete old Folder: " + topDir);
    if (runInShell(kRemoveTreeCmd + " " + topDir)) {
        TRACK_INFO(logger(), "Succesffully removed old csv directory");
    } else {
        TRACK_ERROR(logger(), "Failed removeing old csv directory");
    }
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
