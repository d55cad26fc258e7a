#pragma once

#include <memory>

#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QVector>

enum class LogLevel
{
    Debug,
    Info,
    Warn,
    Error,
    Fatal,
    Off
};

/// One log record as it was written.
struct LogRecord
{
    LogLevel level;
    QString channel;  ///< the logger's name; "root" for the root logger
    QString source;   ///< the source name of the location
    QString function; ///< the full signature of the function that wrote it
    QString message;
};

bool operator==(const LogRecord& left, const LogRecord& right);

/// The records as "ERROR sdcard StateMounting: Mount failed": level, channel, source name and
/// message.
QStringList describe(const QVector<LogRecord>& records);

/// Stands in for the system log: captures every log record of the process, from all threads, until
/// it is destroyed. Then it restores the previous appenders and level.
///
///     LogCapture log;
///     QVERIFY(!config.setup());
///     QCOMPARE(log.messages(), QStringList{"Could not setup configuration handler"});
///     QVERIFY(log.contains(LogLevel::Error, "Could not setup configuration handler"));
///     QCOMPARE(log.errorCount(), 1U);
class LogCapture
{
public:
    /// @param threshold the lowest captured level; LogLevel::Off captures none
    explicit LogCapture(LogLevel threshold = LogLevel::Debug);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture(LogCapture&&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    LogCapture& operator=(LogCapture&&) = delete;

    /// All records since the construction or the last take(), oldest first.
    QVector<LogRecord> records() const;
    /// The texts of records().
    QStringList messages() const;
    /// The texts of the records of one level.
    QStringList messages(LogLevel level) const;
    /// Whether a record of @p level has exactly this text.
    bool contains(LogLevel level, const QString& text) const;
    /// Whether the text of a record of @p level matches @p pattern.
    bool contains(LogLevel level, const QRegularExpression& pattern) const;
    /// Returns records() and clears them and the counts.
    QVector<LogRecord> take();

    /// Stops the next thread that writes a record of this text, right after it, until letGo() or
    /// the end of the capture. Other threads block on their next record.
    void holdAt(const QString& text);
    /// Waits until a thread is stopped; false after 30 s without one.
    bool waitUntilHeld() const;
    void letGo();

    /// The growth of TrackObject's counters since the construction or the last take().
    unsigned int errorCount() const;
    unsigned int fatalCount() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
