#pragma once

#include <memory>

#include <QByteArray>

#include "StorageCapacityWatcher.h"
#include "WorkerThread.h"
#include "config.h"

/// Stands in for a card with two watched directories, together with their watcher. The first
/// contains no files but still exceeds its limit, which a run logs. Every file in the second
/// exceeds its limit. A run can be stopped between the two at that record.
class WatchedRuns
{
public:
    static const QByteArray kSecond;
    static const QString kReport;
    /// The records of a run if the second directory contains no file.
    static const QString kSecondReport;

    /// Mounts the card.
    WatchedRuns();
    /// Destroys the watcher and removes the card.
    ~WatchedRuns();
    WatchedRuns(const WatchedRuns&) = delete;
    WatchedRuns(WatchedRuns&&) = delete;
    WatchedRuns& operator=(const WatchedRuns&) = delete;
    WatchedRuns& operator=(WatchedRuns&&) = delete;

    static void mountCard();
    static void unmountCard();
    /// Creates a file that the next run removes.
    static void createFile(const QByteArray& name = "file");
    static bool fileExists(const QByteArray& name = "file");

    const ConfigHandler& config() const { return mConfig; }
    StorageCapacityWatcher& watcher() { return *mWatcher; }
    void destroyWatcher() { mWatcher.reset(); }
    /// The number of background runs, and whether they all end in time.
    int runs() const;
    bool waitForEnd() const;

    QTimer& timer();

private:
    ConfigHandler mConfig;
    std::unique_ptr<StorageCapacityWatcher> mWatcher;
};
