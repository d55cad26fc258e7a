#pragma once

#include <QCoreApplication>
#include <QSignalSpy>
#include <QStringList>
#include <QTest>
#include <QVector>

#include "CardImage.h"
#include "StateHarness.h"
#include "SystemCalls.h"
#include "TestDevice.h"
#include "ThreadMounting.h"
#include "ToolStandIn.h"

inline const QString kUnpreparedMark = QStringLiteral("/run/sdcardd-unprepared");

/// A good card in the slot, tools that do nothing, and a system that performs no mount.
inline void prepareForMounting()
{
    CardImage::writeDisk({CardImage::kLinux});
    ToolStandIn::place(ToolStandIn::kE2fsck, "");
    ToolStandIn::place(ToolStandIn::kFormatScript, "");
    ToolStandIn::takeCalls();
    ToolStandIn::holdBack();
    SystemCalls::reset();
    // Every mount call succeeds without effect.
    SystemCalls::fail(SystemCalls::Call::Mount, 0, 100);
}

inline void cleanUpAfterMounting()
{
    ToolStandIn::letGo();
    SystemCalls::reset();
    TestDevice::unmountAll("/media/sdcard");
    TestDevice::remove("/media");
    TestDevice::remove(kUnpreparedMark);
    CardImage::remove();
}

inline QStringList takeMountCalls()
{
    return SystemCalls::takeCalls().filter("mount");
}

/// Mounts the test's card and records the signals of the state.
class MountingHarness : public QObject
{
public:
    MountingHarness()
        : mConfig(configOfCard()), mState(new StateMounting(mConfig)), mHarness(mState)
    {
        const auto note = [this](const char* name) {
            return [this, name] {
                mSignals.append(name);
                mIsInMainThread &= QThread::currentThread() == thread();
            };
        };
        connect(mState, &StateMounting::START_PREPARE, this, note("START_PREPARE"));
        connect(mState, &StateMounting::MOUNT_SUCCESS, this, note("MOUNT_SUCCESS"));
        connect(mState, &StateMounting::MOUNT_FAILED, this, note("MOUNT_FAILED"));
        connect(mState, &StateMounting::MOUNT_CORRUPT, this, note("MOUNT_CORRUPT"));
        connect(mState, &StateMounting::mountingStateActive, this, note("mountingStateActive"));
        connect(mState, &StateMounting::newFsBirthDate, this, note("newFsBirthDate"));
        connect(&worker(), &ThreadMounting::setTransitionChangeSignal, this,
                [this](int result) { mReports.append(result); });
    }

    void enter() { Q_EMIT mHarness.enter(); }
    /// Makes the machine leave the state as soon as it enters it.
    void leaveLater() { Q_EMIT mHarness.leave(); }
    void leave()
    {
        Q_EMIT mHarness.leave();
        QVERIFY(QTest::qWaitFor([this] { return !mHarness.isActive(); }, kPatienceMs));
    }
    /// Enters the state and waits until it has ended.
    /// @return the signals emitted
    QStringList run()
    {
        QSignalSpy finished(mState, &QState::finished);
        enter();
        if (finished.isEmpty() && !finished.wait(kPatienceMs)) {
            return {"not finished"};
        }
        return mSignals;
    }
    bool waitForWorker()
    {
        const bool isFinished = worker().wait(kPatienceMs);
        // Delivers the events that it has sent.
        QCoreApplication::processEvents();
        return isFinished;
    }

    StateMounting& state() { return *mState; }
    ThreadMounting& worker() { return *mState->findChild<ThreadMounting*>(); }
    const QStringList& signalNames() const { return mSignals; }
    /// All results that the worker has reported, even those without a signal of the state.
    const QVector<int>& reports() const { return mReports; }
    bool isInMainThread() const { return mIsInMainThread; }

private:
    static constexpr int kPatienceMs = 30000;

    static ConfigHandler configOfCard()
    {
        TestDevice::writeFile("/etc/tavo/tavo-sdcard.config.xml",
                              "<sdcard devicepath='" + CardImage::kPartition.toUtf8() + "'/>");
        ConfigHandler config;
        if (!config.setup()) {
            qFatal("cannot read the configuration");
        }
        return config;
    }

    ConfigHandler mConfig;
    StateMounting* mState;
    StateHarness mHarness;
    QStringList mSignals;
    QVector<int> mReports;
    bool mIsInMainThread = true;
};
