#include <tavoutil/SystemError.h>

#include <cerrno>

#include <QTest>

class SystemErrorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void every_number_gives_the_systems_text();
};

void SystemErrorTest::every_number_gives_the_systems_text()
{
    QCOMPARE(tavoutil::systemErrorText(EBUSY), QByteArray("Device or resource busy"));
    QCOMPARE(tavoutil::systemErrorText(100000), QByteArray("Unknown error 100000"));
}

QTEST_APPLESS_MAIN(SystemErrorTest)
#include "SystemErrorTest.moc"
