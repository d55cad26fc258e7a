#include <QTest>

#include <QFile>

#include "CardStatus.h"
#include "CommandLine.h"
#include "Commands.h"

using namespace sdcardctl;

/// The page is written by hand; nothing that it has to tell may be missing.
class ManPageTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void every_command_is_described_with_its_arguments();
    void every_option_of_the_help_is_described();
    void every_value_stands_there_with_its_number();
    void every_exit_status_is_described();

private:
    QString mPage;
};

void ManPageTest::initTestCase()
{
    QFile file(SOURCE_DIRECTORY "/docs/man/sdcardctl.1.scd");
    QVERIFY(file.open(QIODevice::ReadOnly));
    mPage = QString::fromUtf8(file.readAll());
}

void ManPageTest::every_command_is_described_with_its_arguments()
{
    for (const Command& command : commands()) {
        const QString arguments =
            QString(command.arguments).replace(QRegularExpression("(\\w+)"), "_\\1_");
        const QString heading = ("*" + QString(command.name) + "* " + arguments).trimmed();
        QVERIFY2(
            mPage.contains(QRegularExpression(
                "^(\\*insert\\*, )?" + QRegularExpression::escape(heading) + "(, \\*remove\\*)?$",
                QRegularExpression::MultilineOption)),
            qPrintable(heading));
    }
}

void ManPageTest::every_option_of_the_help_is_described()
{
    const auto help = parseCommandLine({"sdcardctl", "--help"});
    QVERIFY(help);
    QRegularExpression option("--[a-z]+");
    int options = 0;
    for (auto found = option.globalMatch(help->text); found.hasNext(); ++options) {
        const QString name = found.next().captured();
        QVERIFY2(mPage.contains(QRegularExpression("^(\\*-.\\*, )?\\*" + name + "\\*",
                                                   QRegularExpression::MultilineOption)),
                 qPrintable(name));
    }
    QVERIFY(options >= 8);
}

void ManPageTest::every_value_stands_there_with_its_number()
{
    const QString page = QString(mPage).replace('\n', ' ');
    for (const auto nameOf : {stateName, transitionName, memStateName}) {
        int value = 0;
        for (QString name = nameOf(0); !name.isEmpty(); name = nameOf(++value)) {
            const QString entry = "*" + name + "* (" + QString::number(value);
            QVERIFY2(page.contains(entry), qPrintable(entry));
        }
        QVERIFY(value > 7);
    }
}

void ManPageTest::every_exit_status_is_described()
{
    const QString section = mPage.section("# EXIT STATUS", 1).section("\n# ", 0, 0);
    const int last = static_cast<int>(ExitStatus::BadConfiguration);
    for (int status = 0; status <= last; ++status) {
        QVERIFY2(section.contains("\n*" + QString::number(status) + "*\n"),
                 qPrintable(QString::number(status)));
    }
    QCOMPARE(section.count(QRegularExpression("^\\*\\d+\\*$", QRegularExpression::MultilineOption)),
             last + 1);
}

QTEST_GUILESS_MAIN(ManPageTest)
#include "ManPageTest.moc"
