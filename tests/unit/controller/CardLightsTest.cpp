#include "CardLights.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include "LedRecorder.h"
#include "TestDevice.h"

using CardLights::Pattern;
Q_DECLARE_METATYPE(Pattern)

static const QString kLeds = QStringLiteral("/opt/tavo/tavodev/mmc1_leds/mmc-");

class CardLightsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void each_pattern_is_these_writes_in_this_order_data()
    {
        QTest::addColumn<Pattern>("pattern");
        QTest::addColumn<QStringList>("writes");
        QTest::newRow("off") << Pattern::Off << LedWrites::kOff;
        QTest::newRow("mounted") << Pattern::Mounted << LedWrites::kMounted;
        QTest::newRow("busy") << Pattern::Busy << LedWrites::kBusy;
        QTest::newRow("unmounted") << Pattern::Unmounted << LedWrites::kUnmounted;
        QTest::newRow("not mountable") << Pattern::NotMountable << LedWrites::kNotMountable;
    }

    void each_pattern_is_these_writes_in_this_order()
    {
        QFETCH(const Pattern, pattern);
        LedRecorder leds;
        CardLights::show(pattern);
        QTEST(leds.take(), "writes");
    }

    void a_missing_led_is_skipped_and_the_other_is_written_data()
    {
        each_pattern_is_these_writes_in_this_order_data();
    }

    void a_missing_led_is_skipped_and_the_other_is_written()
    {
        QFETCH(const Pattern, pattern);
        QFETCH(const QStringList, writes);
        for (const QString& missing : {QStringLiteral("red"), QStringLiteral("green")}) {
            LedRecorder leds;
            TestDevice::remove(kLeds + missing);
            leds.take();
            CardLights::show(pattern);
            const QString other =
                missing == "red" ? QStringLiteral("green") : QStringLiteral("red");
            QCOMPARE(leds.take(), writes.filter(QRegularExpression("^" + other)));
            QVERIFY(!QFile::exists(kLeds + missing));
        }
    }
};

TEST_DEVICE_MAIN(CardLightsTest)
#include "CardLightsTest.moc"
