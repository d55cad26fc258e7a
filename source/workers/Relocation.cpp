#include "Relocation.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include <QDir>
#include <QFile>
#include <QVector>

#include <dirent.h>
#include <fcntl.h>

#include <tavoutil/TrackLog.h>

#include "ChildProcess.h"
#include "config.h"

namespace {

constexpr tavoutil::RecordOrigin kDatabaseJob{
    "StatePreparing", "void ThreadPreparing::prepareJobRelocateDatabase(const QString&) const"};
constexpr tavoutil::RecordOrigin kCsvJob{
    "StatePreparing", "void ThreadPreparing::prepareJobRelocateCsv(const QString&) const"};

const QString kMoveCmd = QStringLiteral("/bin/mv");
const QString kRemoveTreeCmd = QStringLiteral("/bin/rm -r");

struct LoggerItem
{
    const char* path;        // below the old and the new directory
    const char* description; // as in the records
};

constexpr std::array<LoggerItem, 3> kLoggerItems{{
    {"/PindleLogger.db", "logger database"},
    {"/PindleLogger.db-journal", "logger database journal"},
    {"/LoggerFiles", "logger files folder"},
}};

// Runs a command line in the shell; false unless it ends with status 0.
bool runInShell(const QString& commandLine)
{
    // The shell expands the patterns in the command line.
    return ChildProcess::execute(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), commandLine}) ==
           0;
}

} // namespace

Relocation::Relocation(const ConfigHandler& config, const QString& mountPoint,
                       log4cxx::LoggerPtr logger)
    : mConfig(config), mMountPoint(mountPoint), mCard(mountPoint), mLogger(std::move(logger))
{}

void Relocation::moveDatabase() const
{
    const QString loggerPath = mConfig.getDirPath(QStringLiteral("logger"));
    if (loggerPath.isEmpty()) {
        return;
    }
    const QString newDir = mMountPoint + loggerPath;
    TRACK_INFO_FROM(kDatabaseJob, mLogger, "Logger directory is '" + newDir + "'");
    for (const LoggerItem& item : kLoggerItems) {
        const QString source = mMountPoint + item.path;
        const QString target = newDir + item.path;
        if (!QFile::exists(source) || QFile::exists(target)) {
            continue;
        }
        if (mCard.isElsewhere(loggerPath.toUtf8())) {
            TRACK_ERROR_FROM(kDatabaseJob, mLogger, CardRoot::elsewhereText(newDir.toUtf8()));
            return;
        }
        const std::string what = std::string(item.description) + " into new location";
        const bool isMoved = ChildProcess::execute(kMoveCmd, {source, target}) == 0;
        if (ChildProcess::isAbandoned()) {
            return;
        }
        if (isMoved) {
            TRACK_INFO_FROM(kDatabaseJob, mLogger, "Succesffully moved " + what);
        } else {
            TRACK_ERROR_FROM(kDatabaseJob, mLogger, "Failed to moved " + what);
        }
    }
}

void Relocation::moveCsvFiles() const
{
    const QString csvPath = mConfig.getDirPath(QStringLiteral("csv"));
    if (csvPath.isEmpty()) {
        return;
    }
    const QString newDir = mMountPoint + csvPath;
    const QString doubledPath = csvPath + newDir;
    const QString doubledDir = mMountPoint + doubledPath;
    // Fixed: does not follow the configured mount point.
    const QString topDir = newDir + "/media";
    if (!QFile::exists(doubledDir)) {
        return;
    }
    if (isCsvElsewhere(csvPath.toUtf8(), doubledPath.toUtf8())) {
        return;
    }
    TRACK_INFO_FROM(kCsvJob, mLogger, "move File From " + doubledDir + " to " + newDir);
    const bool isMoved = runInShell(kMoveCmd + " " + doubledDir + "/*/* " + newDir);
    if (ChildProcess::isAbandoned()) {
        return;
    }
    if (!isMoved) {
        TRACK_ERROR_FROM(kCsvJob, mLogger, "Failed moveing csv files into new location");
        return;
    }
    TRACK_INFO_FROM(kCsvJob, mLogger, "Succesffully moved csv files into new location");
    removeDoubledCsvTree(doubledDir, topDir);
}

// Checks each directory in which the shell commands move or remove entries.
bool Relocation::isCsvElsewhere(const QByteArray& csvPath, const QByteArray& doubledPath) const
{
    QVector<QByteArray> places{csvPath};
    const OpenedPlace doubled = mCard.open(doubledPath);
    // Names are bytes; QDir does not list those that are not valid text.
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(
        ::fdopendir(::openat(doubled.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), ::closedir);
    while (const dirent* const entry = entries ? ::readdir(entries.get()) : nullptr) {
        if (entry->d_name[0] != '.') {
            // The pattern matches entries of directories only.
            places.append(doubledPath + '/' + entry->d_name + '/');
        }
    }
    const auto* const elsewhere =
        std::find_if(places.cbegin(), places.cend(),
                     [this](const QByteArray& place) { return mCard.isElsewhere(place); });
    if (elsewhere == places.cend()) {
        return false;
    }
    TRACK_ERROR_FROM(kCsvJob, mLogger, CardRoot::elsewhereText(mMountPoint.toUtf8() + *elsewhere));
    return true;
}

void Relocation::removeDoubledCsvTree(const QString& doubledDir, const QString& topDir) const
{
    bool isEmpty = true;
    const QFileInfoList subDirs =
        QDir(doubledDir).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QFileInfo& subDir : subDirs) {
        const QDir dir(subDir.filePath());
        if (!dir.entryList(QDir::Files, QDir::Unsorted).isEmpty()) {
            TRACK_ERROR_FROM(kCsvJob, mLogger, "old Dirs are not emtpy");
            isEmpty = false;
        }
    }
    if (!isEmpty) {
        return;
    }
    TRACK_INFO_FROM(kCsvJob, mLogger, "Delete old Folder: " + topDir);
    const bool isRemoved = runInShell(kRemoveTreeCmd + " " + topDir);
    if (ChildProcess::isAbandoned()) {
        return;
    }
    if (isRemoved) {
        TRACK_INFO_FROM(kCsvJob, mLogger, "Succesffully removed old csv directory");
    } else {
        TRACK_ERROR_FROM(kCsvJob, mLogger, "Failed removeing old csv directory");
    }
}
