#include <QTest>

#include "VersionRecord.h"

class VersionRecordTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_text_contains_the_given_parts_in_their_order_data()
    {
        QTest::addColumn<QString>("builder");
        QTest::addColumn<bool>("modified");
        QTest::addColumn<int>("external");
        QTest::addColumn<QString>("text");

        QTest::newRow("number alone") << "" << false << 0 << "2.9.851";
        QTest::newRow("builder") << "yocto" << false << 0 << "2.9.851 by yocto";
        QTest::newRow("external build") << "" << false << 42 << "2.9.851 (external:42)";
        QTest::newRow("negative external build") << "" << false << -1 << "2.9.851 (external:-1)";
        QTest::newRow("modified") << "" << true << 0 << "2.9.851 modified";
        QTest::newRow("all") << "me" << true << 7 << "2.9.851 (external:7) by me modified";
    }

    void the_text_contains_the_given_parts_in_their_order()
    {
        QFETCH(const QString, builder);
        QFETCH(const bool, modified);
        QFETCH(const int, external);
        QTEST(VersionRecord({QVersionNumber(2, 9, 851), builder, modified, external}).toString(),
              "text");
    }
};

QTEST_APPLESS_MAIN(VersionRecordTest)
#include "VersionRecordTest.moc"
