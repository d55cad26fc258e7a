#include "FormatEcho.h"

#include <QTest>

namespace {

// The simulated time; the system's time if null.
QDateTime now;

} // namespace

// The linker's option --wrap leads the service's calls here; it prescribes the names.
QDateTime realCurrentDateTime() asm("__real__ZN9QDateTime15currentDateTimeEv");
QDateTime currentDateTime() asm("__wrap__ZN9QDateTime15currentDateTimeEv");

QDateTime currentDateTime()
{
    return now.isValid() ? now : realCurrentDateTime();
}

class FormatEchoTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { now = QDateTime(); }

    void a_removal_1_to_2999_ms_after_a_format_is_its_echo_data()
    {
        QTest::addColumn<int>("sinceFormatMs");
        QTest::addColumn<bool>("isEcho");
        QTest::newRow("0 ms") << 0 << false;
        QTest::newRow("1 ms") << 1 << true;
        QTest::newRow("2999 ms") << 2999 << true;
        QTest::newRow("3000 ms") << 3000 << false;
        QTest::newRow("a clock set back") << -100000 << false;
    }

    void a_removal_1_to_2999_ms_after_a_format_is_its_echo()
    {
        QFETCH(const int, sinceFormatMs);
        QFETCH(const bool, isEcho);
        const QDateTime birth = QDateTime::currentDateTime();
        FormatEcho echo;
        echo.setBirth(birth);
        now = birth.addMSecs(sinceFormatMs);
        QCOMPARE(echo.takeRemoval(), isEcho);
        QCOMPARE(echo.isEcho(), isEcho);
        // The first removal clears the record of the format.
        now = birth.addMSecs(1000);
        QVERIFY(!echo.takeRemoval());
        QVERIFY(!echo.isEcho());
    }

    void without_a_format_there_is_no_echo()
    {
        FormatEcho echo;
        QVERIFY(!echo.takeRemoval());
        echo.setBirth(QDateTime::currentDateTime().addMSecs(-1000));
        echo.setBirth(QDateTime());
        QVERIFY(!echo.takeRemoval());
    }
};

QTEST_APPLESS_MAIN(FormatEchoTest)
#include "FormatEchoTest.moc"
