#include <QTest>

#include <vector>

#include <QFile>
#include <QMap>
#include <QRegularExpression>

#include "BusNames.h"
#include "CardStatus.h"
#include "Commands.h"

using namespace sdcardctl;

using Values = std::vector<PublishedValue>;

Q_DECLARE_METATYPE(Values)

/// Files in other languages repeat the tables of the code and must agree with them.
class NamesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_boards_know_every_value_data() { addTables(); }
    void the_boards_know_every_value();
    void the_boards_know_the_bus_names();
    void the_interface_descriptions_have_the_bus_names();
    void the_man_page_lists_every_value_data() { addTables(); }
    void the_man_page_lists_every_value();
    void the_man_page_describes_every_command();
    void the_man_page_describes_every_option();
    void the_man_page_describes_every_exit_status();
    void a_state_is_found_by_its_word();
    void unknown_values_have_no_word();

private:
    static void addTables()
    {
        QTest::addColumn<QString>("enumeration");
        QTest::addColumn<QString>("label");
        QTest::addColumn<Values>("values");
        const auto row = [](const char* enumeration, const char* label, const auto& table) {
            QTest::newRow(enumeration)
                << QString(enumeration) << QString(label) << Values(table.begin(), table.end());
        };
        row("State", "States", kStates);
        row("Transition", "Transitions", kTransitions);
        row("MemState", "Memory states", kMemStates);
    }
};

namespace {

constexpr auto kMultiline = QRegularExpression::MultilineOption;

QString textOf(const QString& path)
{
    QFile file(SOURCE_DIRECTORY "/" + path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QString manPage()
{
    return textOf("docs/man/sdcardctl.1.scd");
}

// The groups of all matches of a pattern, by the first group.
QMap<QString, QString> matches(const QString& pattern, const QString& text)
{
    QMap<QString, QString> found;
    for (auto all = QRegularExpression(pattern, kMultiline).globalMatch(text); all.hasNext();) {
        const auto match = all.next();
        found.insert(match.captured(1), match.captured(2));
    }
    return found;
}

QMap<QString, QString> numbersByWord(const Values& values)
{
    QMap<QString, QString> numbers;
    for (const PublishedValue& row : values) {
        numbers.insert(row.word, QString::number(row.value));
    }
    return numbers;
}

} // namespace

void NamesTest::the_boards_know_every_value()
{
    QFETCH(const QString, enumeration);
    QFETCH(const Values, values);
    const QString body = textOf("board/names.py")
                             .section("class " + enumeration + "(IntEnum):", 1)
                             .section("\nclass ", 0, 0);
    QMap<QString, QString> expected;
    for (const PublishedValue& row : values) {
        expected.insert(QString(row.word).toUpper().replace('-', '_'), QString::number(row.value));
    }
    QCOMPARE(matches(R"(^    (\w+) = (\d+)$)", body), expected);
}

void NamesTest::the_boards_know_the_bus_names()
{
    const auto names = matches(R"re(^(\w+) = "(.*)"$)re", textOf("board/names.py"));
    QCOMPARE(names.value("SERVICE_NAME"), BusNames::kService);
    QCOMPARE(names.value("OBJECT_PATH"), BusNames::kCardObject);
    QCOMPARE(names.value("CARD_INTERFACE"), BusNames::kCardInterface);
    QCOMPARE(names.value("CONTROLLER_INTERFACE"), BusNames::kControllerInterface);
}

void NamesTest::the_interface_descriptions_have_the_bus_names()
{
    for (const QString& name : {BusNames::kCardInterface, BusNames::kControllerInterface}) {
        const QString description = textOf("source/bus/" + name + ".xml");
        QCOMPARE(matches("<interface name=\"(.*)\"", description).keys(), QStringList{name});
        QVERIFY(textOf("docs/man/sdcardd.8.scd").contains("*" + name + "*, methods"));
    }
}

void NamesTest::the_man_page_lists_every_value()
{
    QFETCH(const QString, label);
    QFETCH(const Values, values);
    const QString list = manPage().section("\n" + label + ": ", 1).section("\n\n", 0, 0);
    QCOMPARE(matches(R"(\*([\w-]+)\* \((\d+))", list), numbersByWord(values));
}

void NamesTest::the_man_page_describes_every_command()
{
    QStringList expected;
    for (const Command& command : commands()) {
        const QString arguments =
            QString(command.arguments).replace(QRegularExpression("(\\w+)"), "_\\1_");
        expected.append(("*" + QString(command.name) + "* " + arguments).trimmed());
    }
    const QString section = manPage().section("\n# COMMANDS\n", 1).section("\n# ", 0, 0);
    QString headings = matches(R"(^(\*.*)$())", section).keys().join('\n');
    headings.replace(", ", "\n");
    QStringList found = headings.split('\n');
    expected.sort();
    found.sort();
    QCOMPARE(found, expected);
}

void NamesTest::the_man_page_describes_every_option()
{
    QStringList expected;
    for (const Option& option : kOptions) {
        expected.append(option.name);
    }
    expected.sort();
    const QString section = manPage().section("\n# OPTIONS\n", 1).section("\n# ", 0, 0);
    QCOMPARE(matches(R"(^(?:\*-\w\*, )?\*--([\w-]+)\*(?: _[A-Z]+_)?$())", section).keys(),
             expected);
}

void NamesTest::the_man_page_describes_every_exit_status()
{
    const QString section = manPage().section("# EXIT STATUS", 1).section("\n# ", 0, 0);
    QStringList expected;
    for (int status = 0; status <= static_cast<int>(ExitStatus::OutputFailed); ++status) {
        expected.append(QString::number(status));
    }
    QCOMPARE(matches(R"(^\*(\d+)\*$())", section).keys(), expected);
}

void NamesTest::a_state_is_found_by_its_word()
{
    for (const PublishedValue& row : kStates) {
        QCOMPARE(static_cast<int>(stateNamed(row.word).value_or(State::Unknown)), row.value);
        QCOMPARE(stateName(row.value), QString(row.word));
    }
    for (const char* const word : {"", "Mounted", "mounted ", "3", "card-inserted"}) {
        QVERIFY2(!stateNamed(word), word);
    }
}

void NamesTest::unknown_values_have_no_word()
{
    QCOMPARE(stateName(-1) + stateName(9), QString());
    QCOMPARE(transitionName(-1) + transitionName(10), QString());
    QCOMPARE(memStateName(-1) + memStateName(8), QString());
}

QTEST_APPLESS_MAIN(NamesTest)
#include "NamesTest.moc"
