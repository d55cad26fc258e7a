#include <QTest>

#include <limits>

#include "Output.h"

using namespace sdcardctl;

class OutputTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bytes_are_shown_in_the_unit_that_fits_data();
    void bytes_are_shown_in_the_unit_that_fits();
    void shares_are_shown_with_at_most_two_decimals_data();
    void shares_are_shown_with_at_most_two_decimals();
    void a_bar_fills_with_the_share_data();
    void a_bar_fills_with_the_share();
};

void OutputTest::bytes_are_shown_in_the_unit_that_fits_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("0") << qint64{0} << "0 B";
    QTest::newRow("1023") << qint64{1023} << "1023 B";
    QTest::newRow("1 KiB") << qint64{1024} << "1.0 KiB";
    QTest::newRow("rounded up to the next unit") << qint64{1048575} << "1.0 MiB";
    QTest::newRow("above 32 bits") << qint64{64} * 1024 * 1024 * 1024 << "64.0 GiB";
    QTest::newRow("largest") << std::numeric_limits<qint64>::max() << "8.0 EiB";
    QTest::newRow("negative") << qint64{-2048} << "-2.0 KiB";
}

void OutputTest::bytes_are_shown_in_the_unit_that_fits()
{
    QFETCH(const qint64, bytes);
    QFETCH(const QString, text);
    QCOMPARE(bytesText(bytes), text);
}

void OutputTest::shares_are_shown_with_at_most_two_decimals_data()
{
    QTest::addColumn<qreal>("share");
    QTest::addColumn<QString>("text");
    QTest::newRow("0") << 0.0 << "0 %";
    QTest::newRow("whole") << 1.0 << "100 %";
    QTest::newRow("one decimal") << 0.125 << "12.5 %";
    QTest::newRow("two decimals") << 0.12346 << "12.35 %";
}

void OutputTest::shares_are_shown_with_at_most_two_decimals()
{
    QFETCH(const qreal, share);
    QFETCH(const QString, text);
    QCOMPARE(percentText(share), text);
}

void OutputTest::a_bar_fills_with_the_share_data()
{
    QTest::addColumn<qreal>("share");
    QTest::addColumn<QString>("bar");
    QTest::newRow("nothing") << 0.0 << "[....]";
    QTest::newRow("hardly anything") << 0.001 << "[#...]";
    QTest::newRow("half") << 0.5 << "[##..]";
    QTest::newRow("all") << 1.0 << "[####]";
    QTest::newRow("too much") << 7.0 << "[####]";
    QTest::newRow("negative") << -1.0 << "[....]";
}

void OutputTest::a_bar_fills_with_the_share()
{
    QFETCH(const qreal, share);
    QFETCH(const QString, bar);
    QCOMPARE(barText(share, 4), bar);
}

QTEST_APPLESS_MAIN(OutputTest)
#include "OutputTest.moc"
