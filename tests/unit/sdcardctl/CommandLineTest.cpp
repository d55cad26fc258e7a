#include <QTest>

#include "CommandLine.h"
#include "Commands.h"

using namespace sdcardctl;

class CommandLineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void options_may_stand_anywhere();
    void an_identifier_may_begin_with_a_dash();
    void an_invalid_command_line_is_refused_data();
    void an_invalid_command_line_is_refused();
    void the_help_names_every_command();
    void a_command_has_its_own_help();
    void the_version_is_printed_with_the_program();
};

namespace {

Result<ParsedCommandLine> parse(const QStringList& arguments)
{
    return parseCommandLine(QStringList{"sdcardctl"} + arguments);
}

} // namespace

void CommandLineTest::options_may_stand_anywhere()
{
    const auto parsed =
        parse({"--bus", "unix:path=/b", "wait", "--timeout=2.5", "mounted", "--json"});
    QVERIFY(parsed);
    const Invocation& invocation = *parsed->invocation;
    QCOMPARE(QString(invocation.command->name), QString("wait"));
    QCOMPARE(invocation.arguments, QStringList{"mounted"});
    QCOMPARE(invocation.busAddress, QString("unix:path=/b"));
    QCOMPARE(invocation.timeoutMs.value_or(0), 2500);
    QVERIFY(invocation.isJson);
}

void CommandLineTest::an_identifier_may_begin_with_a_dash()
{
    const auto parsed = parse({"path", "--", "-x"});
    QVERIFY(parsed);
    QCOMPARE(parsed->invocation->arguments, QStringList{"-x"});
}

void CommandLineTest::an_invalid_command_line_is_refused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");
    QTest::newRow("nothing") << QStringList{} << "A command is missing.";
    QTest::newRow("unknown command")
        << QStringList{"xyzzy"} << "There is no command \"xyzzy\". Try";
    for (const char* const typo : {"moniter", "montor", "monittor", "mointor"}) {
        QTest::newRow(typo) << QStringList{typo} << "\". Did you mean \"monitor\"?";
    }
    QTest::newRow("help of an unknown command")
        << QStringList{"help", "stat"} << "There is no command \"stat\". Did you mean \"status\"?";
    QTest::newRow("unknown option") << QStringList{"status", "--all"} << "Unknown option 'all'.";
    QTest::newRow("too few arguments")
        << QStringList{"path"} << "The usage is \"sdcardctl path ID\".";
    QTest::newRow("too many arguments")
        << QStringList{"status", "now"} << "The usage is \"sdcardctl status\".";
    QTest::newRow("another command's option")
        << QStringList{"insert", "--timeout", "3"} << "\"insert\" does not take --timeout.";
    for (const char* const timeout : {"-1", "soon", "nan", "1e30", ""}) {
        QTest::newRow(qPrintable(QString("timeout '%1'").arg(timeout)))
            << QStringList{"wait", "mounted", QString("--timeout=") + timeout}
            << "--timeout takes a number of seconds.";
    }
}

void CommandLineTest::an_invalid_command_line_is_refused()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, message);
    const auto parsed = parse(arguments);
    QVERIFY(!parsed);
    QCOMPARE(parsed.failure().status, ExitStatus::Usage);
    QVERIFY2(parsed.failure().message.contains(message), qPrintable(parsed.failure().message));
    QVERIFY(parsed.failure().message.endsWith("Try \"sdcardctl --help\"."));
}

void CommandLineTest::the_help_names_every_command()
{
    for (const char* const option : {"-h", "--help"}) {
        const auto parsed = parse({option});
        QVERIFY(parsed && !parsed->invocation);
        for (const Command& command : commands()) {
            QVERIFY2(parsed->text.contains(QString("\n  ") + command.name + " "), command.name);
        }
    }
}

void CommandLineTest::a_command_has_its_own_help()
{
    const QString help = helpText(commandNamed("wait"));
    QVERIFY2(help.contains("[options] wait STATE\n"), qPrintable(help));
    QVERIFY2(help.contains("\n  mounted             ready for use\n"), qPrintable(help));
    QVERIFY2(help.contains("  --timeout <seconds>  Give up"), qPrintable(help));
    QVERIFY2(!help.contains("--strict") && !help.contains("Arguments:"), qPrintable(help));
    for (const QStringList& call :
         {QStringList{"wait", "--help"}, QStringList{"-h", "wait", "x"}}) {
        const auto parsed = parse(call);
        QVERIFY(parsed && !parsed->invocation);
        QCOMPARE(parsed->text, help);
    }
    QString text;
    QTextStream results(&text);
    Output output(results, results, false, false);
    for (const char* const name : {"wait", ""}) {
        const auto parsed = parse(QStringList{"help", name}.mid(0, *name == '\0' ? 1 : 2));
        QVERIFY(parsed && parsed->invocation);
        text.clear();
        QCOMPARE(runHelp(*parsed->invocation, output), ExitStatus::Success);
        QCOMPARE(text, helpText(commandNamed(name)) + "\n");
    }
}

void CommandLineTest::the_version_is_printed_with_the_program()
{
    QCoreApplication::setApplicationVersion("1.2.3");
    const auto parsed = parse({"--version"});
    QVERIFY(parsed);
    QCOMPARE(parsed->text, QString("CommandLineTest 1.2.3"));
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "CommandLineTest.moc"
