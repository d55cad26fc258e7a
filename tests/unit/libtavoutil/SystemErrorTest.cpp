#include <tavoutil/SystemError.h>

#include <cerrno>

#include <QTest>

class SystemErrorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void an_error_number_gives_the_systems_text();
    void an_unknown_number_gives_a_text_too();
};

void SystemErrorTest::an_error_number_gives_the_systems_text()
{
    QCOMPARE(tavoutil::systemErrorText(ENOENT), QByteArray("No such file or directory"));
    QCOMPARE(tavoutil::systemErrorText(EBUSY), QByteArray("Device or resource busy"));
}

void SystemErrorTest::an_unknown_number_gives_a_text_too()
{
    QCOMPARE(tavoutil::systemErrorText(100000), QByteArray("Unknown error 100000"));
}

QTEST_APPLESS_MAIN(SystemErrorTest)
#include "SystemErrorTest.moc"
