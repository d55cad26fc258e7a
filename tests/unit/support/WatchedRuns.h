#pragma once

#include <memory>

#include <QByteArray>

#include "StorageCapacityWatcher.h"
#include "config.h"

/// A card with two watched directories, and the watcher that looks after them. The first holds no
/// files and is beyond its limit all the same, which a run reports; of the second every file is too
/// much. A run can be held between the two at the report.
class WatchedRuns
{
public:
    static const QByteArray kSecond;
    static const QString kReport;
    /// What a run reports where the second directory holds no file.
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

    StorageCapacityWatcher& watcher() { return *mWatcher; }
    void destroyWatcher() { mWatcher.reset(); }
    /// How many background runs there are, and whether there is none after a while.
    int runs() const;
    bool waitForEnd() const;

    QTimer& timer();
    /// Whether the watcher, which must still be there, has told its runs to end. May be asked by
    /// any thread.
    bool isAbandoned() const { return mToken.isCancelled(); }

private:
    ConfigHandler mConfig;
    std::unique_ptr<StorageCapacityWatcher> mWatcher;
    CancellationToken mToken;
};
