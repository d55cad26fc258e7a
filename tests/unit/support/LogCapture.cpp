#include "LogCapture.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <optional>
#include <tuple>
#include <utility>

#include <QTest>

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

#include <tavoutil/TrackObject.h>

#include "ExposedMember.h"

// log4cxx's class macros use its names without the namespace.
using namespace log4cxx;

// log4cxx returns only parts of a record's signature.
EXPOSE_MEMBER(Signature, spi::LocationInfo, methodName);

namespace {

// As log4cxx names them, in the order of LogLevel.
const QStringList kLevelNames{"DEBUG", "INFO", "WARN", "ERROR", "FATAL", "OFF"};

QString levelName(LogLevel level)
{
    return kLevelNames.at(static_cast<int>(level));
}

LogLevel toLogLevel(const LevelPtr& level)
{
    std::string name;
    level->toString(name);
    return static_cast<LogLevel>(kLevelNames.indexOf(QString::fromStdString(name)));
}

class CapturingAppender : public AppenderSkeleton
{
public:
    DECLARE_LOG4CXX_OBJECT(CapturingAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(CapturingAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void close() override {}
    bool requiresLayout() const override { return false; }

    QVector<LogRecord> records() const
    {
        const std::lock_guard<std::mutex> lock(mRecordsMutex);
        return mRecords;
    }

    QVector<LogRecord> take()
    {
        const std::lock_guard<std::mutex> lock(mRecordsMutex);
        return std::exchange(mRecords, {});
    }

    void holdAt(const QString& text)
    {
        const std::lock_guard<std::mutex> lock(mRecordsMutex);
        mHoldAt = text;
        mIsHeld = false;
    }

    bool waitUntilHeld()
    {
        constexpr std::chrono::seconds kPatience(30);
        std::unique_lock<std::mutex> lock(mRecordsMutex);
        return mHoldChanged.wait_for(lock, kPatience, [this] { return mIsHeld; });
    }

    void letGo()
    {
        const std::lock_guard<std::mutex> lock(mRecordsMutex);
        mHoldAt.reset();
        mIsHeld = false;
        mHoldChanged.notify_all();
    }

protected:
    void append(const spi::LoggingEventPtr& event, helpers::Pool&) override
    {
        const spi::LocationInfo& location = event->getLocationInformation();
        // Some compilers write a space before it.
        const QString signature =
            QString::fromUtf8(location.*memberOf(Signature{})).replace(" &", "&");
        const LogRecord record{toLogLevel(event->getLevel()),
                               QString::fromStdString(event->getLoggerName()),
                               QString::fromUtf8(location.getFileName()), signature,
                               QString::fromStdString(event->getMessage())};
        std::unique_lock<std::mutex> lock(mRecordsMutex);
        mRecords.append(record);
        if (mHoldAt == record.message) {
            mIsHeld = true;
            mHoldChanged.notify_all();
            mHoldChanged.wait(lock, [this] { return !mIsHeld; });
        }
    }

private:
    mutable std::mutex mRecordsMutex;
    QVector<LogRecord> mRecords;
    std::optional<QString> mHoldAt;
    bool mIsHeld = false;
    std::condition_variable mHoldChanged;
};

QStringList texts(const QVector<LogRecord>& records)
{
    QStringList messages;
    std::transform(records.begin(), records.end(), std::back_inserter(messages),
                   [](const LogRecord& record) { return record.message; });
    return messages;
}

} // namespace

IMPLEMENT_LOG4CXX_OBJECT(CapturingAppender)

struct LogCapture::Private
{
    std::shared_ptr<CapturingAppender> appender = std::make_shared<CapturingAppender>();
    AppenderList formerAppenders;
    LevelPtr formerLevel;
    unsigned int errorsBefore = TrackObject::sErrorCounter;
    unsigned int fatalsBefore = TrackObject::sFatalCounter;
};

bool operator==(const LogRecord& left, const LogRecord& right)
{
    return std::tie(left.level, left.channel, left.source, left.function, left.message) ==
           std::tie(right.level, right.channel, right.source, right.function, right.message);
}

QStringList describe(const QVector<LogRecord>& records)
{
    QStringList texts;
    for (const LogRecord& record : records) {
        texts.append(levelName(record.level) + " " + record.channel + " " + record.source + ": " +
                     record.message);
    }
    return texts;
}

LogCapture::LogCapture(LogLevel threshold) : d(std::make_unique<Private>())
{
    const LoggerPtr root = Logger::getRootLogger();
    d->formerAppenders = root->getAllAppenders();
    d->formerLevel = root->getLevel();
    for (const AppenderPtr& appender : d->formerAppenders) {
        root->removeAppender(appender);
    }
    root->addAppender(d->appender);
    root->setLevel(Level::toLevelLS(levelName(threshold).toStdString()));
}

LogCapture::~LogCapture()
{
    letGo();
    const LoggerPtr root = Logger::getRootLogger();
    root->removeAppender(d->appender);
    for (const AppenderPtr& appender : d->formerAppenders) {
        root->addAppender(appender);
    }
    root->setLevel(d->formerLevel);
}

QVector<LogRecord> LogCapture::records() const
{
    return d->appender->records();
}

QStringList LogCapture::messages() const
{
    return texts(records());
}

QStringList LogCapture::messages(LogLevel level) const
{
    QVector<LogRecord> ofLevel = records();
    ofLevel.erase(
        std::remove_if(ofLevel.begin(), ofLevel.end(),
                       [level](const LogRecord& record) { return record.level != level; }),
        ofLevel.end());
    return texts(ofLevel);
}

bool LogCapture::contains(LogLevel level, const QString& text) const
{
    return messages(level).contains(text);
}

bool LogCapture::contains(LogLevel level, const QRegularExpression& pattern) const
{
    return messages(level).indexOf(pattern) >= 0;
}

QVector<LogRecord> LogCapture::take()
{
    d->errorsBefore = TrackObject::sErrorCounter;
    d->fatalsBefore = TrackObject::sFatalCounter;
    return d->appender->take();
}

void LogCapture::holdAt(const QString& text)
{
    d->appender->holdAt(text);
}

bool LogCapture::waitUntilHeld() const
{
    return d->appender->waitUntilHeld();
}

void LogCapture::letGo()
{
    d->appender->letGo();
}

unsigned int LogCapture::errorCount() const
{
    return TrackObject::sErrorCounter - d->errorsBefore;
}

unsigned int LogCapture::fatalCount() const
{
    return TrackObject::sFatalCounter - d->fatalsBefore;
}
