#include "EjectButton.h"

#include <QTest>

#include "TestDevice.h"

namespace {

const QString kButton = QStringLiteral("/opt/tavo/tavodev/mmc1_eject/value");

int ejections(EjectButton& button, int readings)
{
    int count = 0;
    for (int reading = 0; reading < readings; ++reading) {
        count += button.read() ? 1 : 0;
    }
    return count;
}

} // namespace

class EjectButtonTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestDevice::writeFile(kButton, "1\n"); }

    void a_button_held_for_25_readings_ejects_once()
    {
        EjectButton button;
        QCOMPARE(ejections(button, 24), 0);
        QVERIFY(button.read());
        QCOMPARE(ejections(button, 24), 0);
        QVERIFY(button.read());
    }

    void a_button_is_pressed_if_its_file_contains_1_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("left");
        QTest::newRow("1") << QByteArray("1") << 21;
        QTest::newRow("line") << QByteArray("1\n") << 21;
        QTest::newRow("white space") << QByteArray(" \t1 \n\n") << 21;
        QTest::newRow("leading zero") << QByteArray("01\n") << 21;
        QTest::newRow("released") << QByteArray("0\n") << 25;
        QTest::newRow("other number") << QByteArray("11\n") << 25;
        QTest::newRow("negative") << QByteArray("-1\n") << 25;
        QTest::newRow("empty") << QByteArray() << 22;
        QTest::newRow("no number") << QByteArray("pressed\n") << 22;
        QTest::newRow("another base") << QByteArray("0x1\n") << 22;
    }

    void a_button_is_pressed_if_its_file_contains_1()
    {
        QFETCH(const QByteArray, content);
        QFETCH(const int, left);
        EjectButton button;
        QCOMPARE(ejections(button, 3), 0);
        TestDevice::writeFile(kButton, content);
        QVERIFY(!button.read());
        TestDevice::writeFile(kButton, "1\n");
        QCOMPARE(ejections(button, left - 1), 0);
        QVERIFY(button.read());
    }

    void a_button_that_cannot_be_read_keeps_the_count()
    {
        EjectButton button;
        QVERIFY(!button.read());
        TestDevice::remove(kButton);
        QVERIFY(!EjectButton::exists());
        QVERIFY(!button.read());
        TestDevice::writeFile(kButton, "1\n");
        QCOMPARE(ejections(button, 23), 0);
        QVERIFY(button.read());
    }
};

TEST_DEVICE_MAIN(EjectButtonTest)
#include "EjectButtonTest.moc"
