#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include "LogCapture.h"

class LedRecorder;
class SDCardImpl;
class Sdcard;

/// Stands in for everybody around a controller: records what it does to its surroundings, in the
/// order in which it happens. That are the controller's signals ("FILES_CLOSED"), the signals that
/// leave on the bus ("CardMounted", "MemLevelChanged 30"), LED writes ("red trigger=timer") and log
/// records as describe() shows them. Between two signals, LED writes stand before log records.
class EffectRecorder : public QObject
{
    Q_OBJECT

public:
    explicit EffectRecorder(LedRecorder& leds) : mLeds(leds) {}

    /// Follows the signals of a controller.
    void follow(Sdcard& controller);
    /// Adds what the test itself has seen.
    void note(const QString& what);

    /// What happened since the last take().
    QStringList take();
    /// The kinds apart.
    struct Parts
    {
        QStringList signalNames;
        QStringList ledWrites;
        QStringList logRecords;
    };
    Parts takeParts();
    /// The bus object's properties and the running timers at the instant of each signal since the
    /// last take(): "EjectPressed: State 5, Transition 3, IsMounted 1", "CardMounted: State 3,
    /// Transition 1, IsMounted 1, memory timer".
    const QStringList& properties() const { return mProperties; }

    /// By how much the count of errors grew since the last take().
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
