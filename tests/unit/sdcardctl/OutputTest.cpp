#include <QTest>

#include <limits>

#include "Output.h"

using namespace sdcardctl;

class OutputTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void bytes_are_shown_in_the_unit_that_fits();
    void shares_are_shown_with_at_most_two_decimals();
    void a_bar_fills_with_the_share();
};

void OutputTest::bytes_are_shown_in_the_unit_that_fits()
{
    QCOMPARE(bytesText(0), QString("0 B"));
    QCOMPARE(bytesText(1023), QString("1023 B"));
    QCOMPARE(bytesText(1024), QString("1.0 KiB"));
    QCOMPARE(bytesText(1048575), QString("1.0 MiB"));
    QCOMPARE(bytesText(qint64{64} * 1024 * 1024 * 1024), QString("64.0 GiB"));
    QCOMPARE(bytesText(std::numeric_limits<qint64>::max()), QString("8.0 EiB"));
    QCOMPARE(bytesText(-2048), QString("-2.0 KiB"));
}

void OutputTest::shares_are_shown_with_at_most_two_decimals()
{
    QCOMPARE(percentText(0), QString("0 %"));
    QCOMPARE(percentText(1), QString("100 %"));
    QCOMPARE(percentText(0.125), QString("12.5 %"));
    QCOMPARE(percentText(0.12346), QString("12.35 %"));
}

void OutputTest::a_bar_fills_with_the_share()
{
    QCOMPARE(barText(0, 4), QString("[....]"));
    QCOMPARE(barText(0.001, 4), QString("[#...]"));
    QCOMPARE(barText(0.5, 4), QString("[##..]"));
    QCOMPARE(barText(1, 4), QString("[####]"));
    QCOMPARE(barText(7, 4), QString("[####]"));
    QCOMPARE(barText(-1, 4), QString("[....]"));
}

QTEST_APPLESS_MAIN(OutputTest)
#include "OutputTest.moc"
