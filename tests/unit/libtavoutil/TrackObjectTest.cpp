#include <tavoutil/TrackObject.h>

#include <QTest>

#include <tavoutil/TrackLog.h>

#include "LogCapture.h"

class TrackObjectTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void an_object_writes_to_its_own_channel();
    void an_object_without_a_channel_writes_to_the_root();
    void a_copy_writes_to_the_same_channel();
    void a_logger_can_be_shared_without_a_look_up();
};

namespace {

constexpr auto kTrackSource = "TrackObjectTest";

class Tracked : public TrackObject
{
public:
    Tracked() = default;
    explicit Tracked(const char* channel) { initTrack(channel); }
    explicit Tracked(const log4cxx::LoggerPtr& shared) : TrackObject(shared) {}
    void say(const char* text) const { TRACK_INFO(logger(), text); }
};

} // namespace

void TrackObjectTest::an_object_writes_to_its_own_channel()
{
    const LogCapture log;
    Tracked("St:Mounting").say("mounting");
    Tracked("config").say("parsing");
    QCOMPARE(log.records().at(0).channel, QString("St:Mounting"));
    QCOMPARE(log.records().at(1).channel, QString("config"));
}

void TrackObjectTest::an_object_without_a_channel_writes_to_the_root()
{
    const LogCapture log;
    Tracked().say("early");
    QCOMPARE(log.records().at(0).channel, QString("root"));
}

void TrackObjectTest::a_copy_writes_to_the_same_channel()
{
    const LogCapture log;
    const Tracked original("config");
    const Tracked copy(original); // NOLINT(performance-unnecessary-copy-initialization)
    copy.say("copied");
    QCOMPARE(log.records().at(0).channel, QString("config"));
}

void TrackObjectTest::a_logger_can_be_shared_without_a_look_up()
{
    const LogCapture log;
    const log4cxx::LoggerPtr shared = log4cxx::Logger::getLogger("files");
    const Tracked file(shared);
    QCOMPARE(file.logger().get(), shared.get());
    file.say("scanned");
    QCOMPARE(log.records().at(0).channel, QString("files"));
}

QTEST_APPLESS_MAIN(TrackObjectTest)
#include "TrackObjectTest.moc"
