#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include "LogCapture.h"

class LedRecorder;
class SDCardImpl;
class Sdcard;

/// The texts of log records with where they belong: "ERROR sdcard StateMounting: Mount failed".
/// That is level, channel, source name and message.
QStringList describe(const QVector<LogRecord>& records);

/// Everything that a controller does to its surroundings, in the order in which it happens: the
/// signals of the controller ("FILES_CLOSED") and of its bus object ("CardMounted",
/// "MemLevelChanged 30"), LED writes ("red trigger=timer") and log records as describe() shows
/// them. Between two signals, LED writes stand before log records.
class EffectRecorder : public QObject
{
    Q_OBJECT

public:
    explicit EffectRecorder(LedRecorder& leds);

    /// Follows the signals of a controller.
    void follow(Sdcard& controller);

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
    /// The properties that the bus object showed when each signal was emitted, since the last
    /// take(): "CardMounted: State 3, IsMounted 1".
    QStringList takeProperties();

    /// By how much the count of errors grew since the last take().
    unsigned int errorCount() const { return mLog.errorCount(); }

private:
    void note(const QString& signal);
    void flush();

    LedRecorder& mLeds;
    LogCapture mLog;
    SDCardImpl* mService = nullptr;
    QStringList mEffects;
    Parts mParts;
    QStringList mProperties;
};
