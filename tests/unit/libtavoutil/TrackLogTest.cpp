#include <tavoutil/TrackLog.h>

#include <thread>

#include <QTest>

#include "LogCapture.h"

namespace {

constexpr auto kTrackSource = "TrackLogTest";

} // namespace

class TrackLogTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void each_call_writes_its_level_to_the_given_channel();
    void the_location_carries_source_name_and_full_signature();
    void a_record_on_behalf_of_another_function_names_that_one();
    void messages_of_every_text_type_are_written_as_utf8();
    void a_message_is_not_built_if_its_level_is_off();
    void only_errors_and_fatals_count_even_if_their_level_is_off();
    void counting_loses_nothing_between_threads();
    void a_call_is_one_statement();

private:
    void function_with_arguments(int number, bool flag) const;
};

static log4cxx::LoggerPtr channel()
{
    return log4cxx::Logger::getLogger("tracklog");
}

void TrackLogTest::each_call_writes_its_level_to_the_given_channel()
{
    const LogCapture log;
    TRACK_INFO(channel(), "a");
    TRACK_WARN(channel(), "b");
    TRACK_ERROR(channel(), "c");
    TRACK_FATAL(channel(), "d");
    QVector<LogLevel> levels;
    for (const LogRecord& record : log.records()) {
        levels.append(record.level);
        QCOMPARE(record.channel, QString("tracklog"));
    }
    QCOMPARE(levels,
             (QVector<LogLevel>{LogLevel::Info, LogLevel::Warn, LogLevel::Error, LogLevel::Fatal}));
    QCOMPARE(log.messages(), (QStringList{"a", "b", "c", "d"}));
}

void TrackLogTest::function_with_arguments(int number, bool flag) const
{
    TRACK_INFO(channel(), QString::number(flag ? number : 0));
}

void TrackLogTest::the_location_carries_source_name_and_full_signature()
{
    const LogCapture log;
    function_with_arguments(1, true);
    QCOMPARE(log.records().at(0).source, QString("TrackLogTest"));
    QCOMPARE(log.records().at(0).function,
             QString("void TrackLogTest::function_with_arguments(int, bool) const"));
}

void TrackLogTest::a_record_on_behalf_of_another_function_names_that_one()
{
    const LogCapture log;
    TRACK_ERROR_FROM((tavoutil::RecordOrigin{"unit", "void Other::function()"}), channel(), "text");
    QCOMPARE(log.records().at(0).source, QString("unit"));
    QCOMPARE(log.records().at(0).function, QString("void Other::function()"));
    QCOMPARE(log.errorCount(), 1U);
}

void TrackLogTest::messages_of_every_text_type_are_written_as_utf8()
{
    const QString text = QString::fromUtf8("gr\u00fcn \u20ac");
    const LogCapture log;
    TRACK_INFO(channel(), text);
    TRACK_INFO(channel(), text.toUtf8());
    TRACK_INFO(channel(), text.toStdString());
    TRACK_INFO(channel(), "gr\u00fcn \u20ac");
    TRACK_INFO(channel(), "'" + text + "'");
    QCOMPARE(log.messages(), (QStringList{text, text, text, text, "'" + text + "'"}));
}

void TrackLogTest::a_message_is_not_built_if_its_level_is_off()
{
    const LogCapture log(LogLevel::Off);
    int built = 0;
    const auto build = [&built] {
        ++built;
        return QString("text");
    };
    TRACK_INFO(channel(), build());
    TRACK_WARN(channel(), build());
    TRACK_ERROR(channel(), build());
    TRACK_FATAL(channel(), build());
    QCOMPARE(built, 0);
    QCOMPARE(log.records().size(), 0);
}

void TrackLogTest::only_errors_and_fatals_count_even_if_their_level_is_off()
{
    for (const LogLevel threshold : {LogLevel::Debug, LogLevel::Off}) {
        const LogCapture log(threshold);
        TRACK_INFO(channel(), "info");
        TRACK_WARN(channel(), "warning");
        TRACK_ERROR(channel(), "error");
        TRACK_FATAL(channel(), "fatal");
        TRACK_FATAL(channel(), "fatal");
        QCOMPARE(log.errorCount(), 1U);
        QCOMPARE(log.fatalCount(), 2U);
    }
}

void TrackLogTest::counting_loses_nothing_between_threads()
{
    constexpr int kCalls = 20000;
    const LogCapture log(LogLevel::Off);
    const auto fail = [] {
        for (int i = 0; i < kCalls; ++i) {
            TRACK_ERROR(channel(), "error");
        }
    };
    std::thread first(fail);
    std::thread second(fail);
    first.join();
    second.join();
    QCOMPARE(log.errorCount(), 2U * kCalls);
}

void TrackLogTest::a_call_is_one_statement()
{
    const LogCapture log;
    // NOLINTBEGIN(readability-braces-around-statements): what a macro of two statements would break
    if (log.messages().isEmpty())
        TRACK_ERROR(channel(), "then");
    else
        TRACK_ERROR(channel(), "else");
    // NOLINTEND(readability-braces-around-statements)
    QCOMPARE(log.messages(), QStringList{"then"});
    QCOMPARE(log.errorCount(), 1U);
}

QTEST_APPLESS_MAIN(TrackLogTest)
#include "TrackLogTest.moc"
