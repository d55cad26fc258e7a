#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include "LogCapture.h"

class LedRecorder;
class SDCardImpl;
class Sdcard;

/// Stands in for the surroundings of a controller: records its effects in order. These are the
/// controller's signals ("FILES_CLOSED"), its signals on the bus ("CardMounted", "MemLevelChanged
/// 30"), LED writes ("red trigger=timer") and log records as in describe(). Between two signals,
/// LED writes come before log records.
class EffectRecorder : public QObject
{
    Q_OBJECT

public:
    explicit EffectRecorder(LedRecorder& leds) : mLeds(leds) {}

    /// Records the signals of a controller.
    void follow(Sdcard& controller);
    /// Adds an event of the test itself.
    void note(const QString& what);

    /// The effects since the last take().
    QStringList take();
    /// The effects, separated by kind.
    struct Parts
    {
        QStringList signalNames;
        QStringList ledWrites;
        QStringList logRecords;
    };
    Parts takeParts();
    /// The bus object's properties and the running timers at the time of each signal since the last
    /// take(): "EjectPressed: State 5, Transition 3, IsMounted 1", "CardMounted: State 3,
    /// Transition 1, IsMounted 1, memory timer".
    const QStringList& properties() const { return mProperties; }

    /// The number of errors since the last take().
    unsigned int errorCount() const { return mLog.errorCount(); }

private Q_SLOTS:
    void noteSignal();
    void noteSignal(int value);

private:
    void followSignals(const QObject& sender);
    void flush();

    LedRecorder& mLeds;
    LogCapture mLog;
    Sdcard* mController = nullptr;
    SDCardImpl* mService = nullptr;
    QStringList mEffects;
    Parts mParts;
    QStringList mProperties;
};
