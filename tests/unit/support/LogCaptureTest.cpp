#include "LogCapture.h"

#include <atomic>
#include <thread>

#include <QTest>

#include <tavoutil/TrackLog.h>

namespace {

constexpr auto kTrackSource = "LogCaptureTest";

} // namespace

static log4cxx::LoggerPtr channel()
{
    return log4cxx::Logger::getLogger("capture");
}

class LogCaptureTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_message_is_found_by_level_and_text()
    {
        const LogCapture log;
        TRACK_ERROR(channel(), "it broke: 17");
        QVERIFY(log.contains(LogLevel::Error, "it broke: 17"));
        QVERIFY(log.contains(LogLevel::Error, QRegularExpression("^it broke: [0-9]+$")));
        QVERIFY(!log.contains(LogLevel::Error, "it broke"));
        QVERIFY(!log.contains(LogLevel::Warn, "it broke: 17"));
    }

    void taking_starts_anew()
    {
        LogCapture log;
        TRACK_ERROR(channel(), "old");
        TRACK_FATAL(channel(), "worse");
        QCOMPARE(log.errorCount(), 1U);
        QCOMPARE(log.fatalCount(), 1U);
        QCOMPARE(log.take().size(), 2);
        QCOMPARE(log.errorCount(), 0U);
        QCOMPARE(log.fatalCount(), 0U);
        QCOMPARE(log.messages(), QStringList());
    }

    void an_inner_capture_hides_the_outer_one_until_it_ends()
    {
        const LogCapture outer(LogLevel::Info);
        {
            const LogCapture inner(LogLevel::Error);
            TRACK_WARN(channel(), "for nobody");
            TRACK_ERROR(channel(), "inside");
            QCOMPARE(inner.messages(), QStringList{"inside"});
        }
        TRACK_INFO(channel(), "outside");
        QCOMPARE(outer.messages(), QStringList{"outside"});
    }

    void a_thread_is_held_at_a_record_until_it_is_let_go()
    {
        LogCapture log;
        log.holdAt("here");
        std::atomic<bool> isBeyond{false};
        std::thread thread([&isBeyond] {
            TRACK_INFO(channel(), "before");
            TRACK_INFO(channel(), "here");
            isBeyond = true;
            TRACK_INFO(channel(), "here");
        });
        const bool isHeld = log.waitUntilHeld();
        const bool wasBeyond = isBeyond;
        const QStringList messages = log.messages();
        log.letGo();
        thread.join();
        QVERIFY(isHeld);
        QVERIFY(!wasBeyond);
        QCOMPARE(messages, (QStringList{"before", "here"}));
        QCOMPARE(log.messages(), (QStringList{"before", "here", "here"}));
    }
};

QTEST_APPLESS_MAIN(LogCaptureTest)
#include "LogCaptureTest.moc"
