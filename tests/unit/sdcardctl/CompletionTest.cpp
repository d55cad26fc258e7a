#include <QTest>

#include "CardStatus.h"
#include "Commands.h"
#include "FakeService.h"
#include "PrivateBus.h"
#include "SampleCard.h"

using namespace sdcardctl;

class CompletionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_first_word_is_a_command();
    void a_beginning_is_completed();
    void wait_takes_the_states();
    void path_size_and_used_take_the_directories_of_the_service_data();
    void path_size_and_used_take_the_directories_of_the_service();
    void ensure_takes_watched_directories();
    void identifiers_with_blanks_are_quoted();
    void nothing_is_offered_where_no_service_runs();
    void addresses_that_bash_breaks_into_words_are_one_word();
    void identifiers_that_bash_breaks_into_words_are_completed_from_the_break();
    void only_one_argument_is_completed();
    void every_option_is_offered_where_it_is_taken_data();
    void every_option_is_offered_where_it_is_taken();
    void files_are_offered_for_checks_and_configurations();

private:
    PrivateBus mBus;
};

namespace {

const SampleCard card;

// What bash offers for the last of the words.
QStringList completionsOf(const QStringList& words)
{
    QProcess bash;
    bash.setProcessChannelMode(QProcess::SeparateChannels);
    // compopt works only while bash itself completes.
    const QString script = R"(compopt() { :; }
source "$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_sdcardctl "$1"
[ ${#COMPREPLY[@]} = 0 ] || printf '%s\n' "${COMPREPLY[@]}")";
    const QString completion = SOURCE_DIRECTORY "/sdcardctl/sdcardctl.bash-completion";
    bash.start("bash",
               QStringList{"--norc", "-c", script, "bash", completion, SDCARDCTL_PROGRAM} + words);
    if (!QTest::qWaitFor([&] { return bash.state() == QProcess::NotRunning; }, 20000)) {
        return {"bash does not end"};
    }
    const QString errors = QString::fromUtf8(bash.readAllStandardError());
    return (QString::fromUtf8(bash.readAllStandardOutput()) + errors)
        .split('\n', Qt::SkipEmptyParts);
}

// The words as bash has them: its default breaks are words of their own.
QStringList brokenByBash(const QString& line)
{
    QStringList words;
    const QRegularExpression word("[:=]+|[^\\s:=]+");
    for (auto found = word.globalMatch(line); found.hasNext();) {
        words.append(found.next().captured());
    }
    return line.endsWith(' ') ? words + QStringList{""} : words;
}

QStringList withBus(const PrivateBus& bus, const QStringList& words)
{
    return QStringList{"--bus", bus.address()} + words;
}

} // namespace

void CompletionTest::the_first_word_is_a_command()
{
    QStringList names;
    for (const Command& command : commands()) {
        names.append(command.name);
    }
    QCOMPARE(completionsOf({""}), names);
    QCOMPARE(completionsOf({"--json", ""}), names);
}

void CompletionTest::a_beginning_is_completed()
{
    QCOMPARE(completionsOf({"re"}), (QStringList{"refresh", "remove"}));
    QCOMPARE(completionsOf({"--ju"}), QStringList());
    QCOMPARE(completionsOf({"--j"}), QStringList{"--json"});
}

void CompletionTest::wait_takes_the_states()
{
    QCOMPARE(completionsOf({"wait", ""}), stateNames());
    QCOMPARE(completionsOf({"wait", "--timeout", "5", "mount"}),
             (QStringList{"mounted", "mounting"}));
    QCOMPARE(completionsOf({"wait", "--timeout", ""}), QStringList());
}

void CompletionTest::path_size_and_used_take_the_directories_of_the_service_data()
{
    QTest::addColumn<QString>("command");
    for (const char* const command : {"path", "size", "used"}) {
        QTest::newRow(command) << command;
    }
}

void CompletionTest::path_size_and_used_take_the_directories_of_the_service()
{
    QFETCH(const QString, command);
    FakeService service(mBus);
    SampleCard::mount(service);
    QCOMPARE(completionsOf(withBus(mBus, {"--config", card.configFile(), command, ""})),
             (QStringList{"logger", "archive", "csv"}));
    service.directories.remove("archive");
    QCOMPARE(completionsOf(withBus(mBus, {"--config", card.configFile(), command, ""})),
             (QStringList{"logger", "csv"}));
    QCOMPARE(completionsOf(withBus(mBus, {"--config", card.configFile(), command, "c"})),
             QStringList{"csv"});
}

void CompletionTest::ensure_takes_watched_directories()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    QCOMPARE(completionsOf(withBus(mBus, {"--config", card.configFile(), "ensure", ""})),
             QStringList{"logger"});
}

void CompletionTest::identifiers_with_blanks_are_quoted()
{
    QTemporaryDir directory;
    const QString file = directory.filePath("blanks.xml");
    QFile configuration(file);
    QVERIFY(configuration.open(QIODevice::WriteOnly));
    configuration.write("<sdcard><dir size='1'>old logs</dir></sdcard>");
    configuration.close();
    FakeService service(mBus);
    service.directories = {{"old logs", {"/old logs", 0, 0}}};
    QCOMPARE(completionsOf(withBus(mBus, {"--config", file, "path", "old"})),
             QStringList{"old\\ logs"});
    QCOMPARE(completionsOf(withBus(mBus, {"--config", file, "path", "old\\ l"})),
             QStringList{"old\\ logs"});
}

void CompletionTest::addresses_that_bash_breaks_into_words_are_one_word()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    for (const char* const option : {"--bus ", "--bus="}) {
        const QString line = option + mBus.address() + " --config=" + card.configFile() + " path l";
        QVERIFY(brokenByBash(line).size() > 8);
        QCOMPARE(completionsOf(brokenByBash(line)), QStringList{"logger"});
        QCOMPARE(completionsOf(brokenByBash(option + mBus.address())), QStringList());
    }
    QCOMPARE(completionsOf(brokenByBash("--timeout=5 wait cor")), QStringList{"corrupted"});
}

void CompletionTest::identifiers_that_bash_breaks_into_words_are_completed_from_the_break()
{
    QTemporaryDir directory;
    const QString file = directory.filePath("breaks.xml");
    QFile configuration(file);
    QVERIFY(configuration.open(QIODevice::WriteOnly));
    configuration.write("<sdcard><dir size='1'>a:b=cd</dir></sdcard>");
    configuration.close();
    FakeService service(mBus);
    service.directories = {{"a:b=cd", {"/a:b=cd", 0, 0}}};
    const QStringList call = withBus(mBus, {"--config", file, "path"});
    QCOMPARE(completionsOf(call + QStringList{"a"}), QStringList{"a:b=cd"});
    QCOMPARE(completionsOf(call + QStringList{"a", ":", "b"}), QStringList{"b=cd"});
    QCOMPARE(completionsOf(call + QStringList{"a", ":", "b", "=", "c"}), QStringList{"cd"});
}

void CompletionTest::nothing_is_offered_where_no_service_runs()
{
    QCOMPARE(completionsOf(withBus(mBus, {"--config", card.configFile(), "path", ""})),
             QStringList());
}

void CompletionTest::only_one_argument_is_completed()
{
    QCOMPARE(completionsOf({"wait", "mounted", ""}), QStringList());
    QCOMPARE(completionsOf({"status", ""}), QStringList());
}

void CompletionTest::every_option_is_offered_where_it_is_taken_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<unsigned int>("options");
    for (const Command& command : commands()) {
        QTest::newRow(command.name) << command.name << command.options;
    }
}

void CompletionTest::every_option_is_offered_where_it_is_taken()
{
    QFETCH(const QString, command);
    QFETCH(const unsigned int, options);
    QStringList expected{"--help", "--version", "--json", "--bus"};
    expected += (options & ConfigOption) != 0 ? QStringList{"--config"} : QStringList();
    expected += (options & WatchedOption) != 0 ? QStringList{"--watched"} : QStringList();
    expected += (options & TimeoutOption) != 0 ? QStringList{"--timeout"} : QStringList();
    expected += (options & StrictOption) != 0 ? QStringList{"--strict"} : QStringList();
    QCOMPARE(completionsOf({command, "-"}), expected);
}

void CompletionTest::files_are_offered_for_checks_and_configurations()
{
    const QString beginning = card.configFile().chopped(3);
    QCOMPARE(completionsOf({"check-config", beginning}), QStringList{card.configFile()});
    QCOMPARE(completionsOf({"status", "--config", beginning}), QStringList{card.configFile()});
}

QTEST_GUILESS_MAIN(CompletionTest)
#include "CompletionTest.moc"
