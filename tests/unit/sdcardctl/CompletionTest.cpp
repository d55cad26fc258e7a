#include <QTest>

#include "CardStatus.h"
#include "Commands.h"
#include "FakeService.h"
#include "PrivateBus.h"
#include "ProgramRun.h"
#include "SampleCard.h"

using namespace sdcardctl;

class CompletionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_line_is_completed_with_what_fits();
    void every_option_is_offered_where_it_is_taken();
    void directories_come_from_the_running_service();
    void bash_offers_what_begins_like_the_word();
    void addresses_that_bash_breaks_into_words_are_one_word();
    void bash_quotes_identifiers_and_completes_them_from_its_last_break();
    void zsh_and_fish_offer_the_candidates();

private:
    QStringList onCard(const QStringList& words) const
    {
        return QStringList{"--bus", mBus.address(), "--config", mCard.configFile()} + words;
    }

    PrivateBus mBus;
    SampleCard mCard;
};

namespace {

const QStringList kFiles{""};

// The candidates without their meanings.
QStringList candidatesFor(const QStringList& words)
{
    const QString lines = ProgramRun::answer(QStringList{"__complete"} + words);
    QStringList candidates;
    for (const QString& line : lines.split('\n', Qt::SkipEmptyParts)) {
        candidates.append(line.section('\t', 0, 0));
    }
    return candidates;
}

QString outputOf(QProcess& process)
{
    const bool hasEnded =
        QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 20000);
    return hasEnded
               ? QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError())
               : "it does not end";
}

// The words that bash offers for the last of the words.
QStringList completionsOf(const QStringList& words)
{
    // compopt works only while bash itself completes.
    const QString script = R"(compopt() { :; }
source "$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_sdcardctl "$1"
[ ${#COMPREPLY[@]} = 0 ] || printf '%s\n' "${COMPREPLY[@]}")";
    QProcess bash;
    bash.start("bash", QStringList{"--norc", "-c", script, "bash",
                                   SOURCE_DIRECTORY "/sdcardctl/sdcardctl.bash-completion",
                                   SDCARDCTL_PROGRAM} +
                           words);
    return outputOf(bash).split('\n', Qt::SkipEmptyParts);
}

// The words as bash splits them: each default break character is a word of its own.
QStringList brokenByBash(const QString& line)
{
    QStringList words;
    const QRegularExpression word("[:=]+|[^\\s:=]+");
    for (auto found = word.globalMatch(line); found.hasNext();) {
        words.append(found.next().captured());
    }
    return words;
}

} // namespace

void CompletionTest::a_line_is_completed_with_what_fits()
{
    QStringList names;
    for (const Command& command : commands()) {
        names.append(command.name);
    }
    QStringList states;
    for (const PublishedValue& state : kStates) {
        states.append(state.word);
    }
    const auto row = [](const QStringList& words, const QStringList& expected) {
        const QStringList candidates = candidatesFor(words);
        QVERIFY2(candidates == expected,
                 qPrintable(words.join(' ') + ": " + candidates.join(", ")));
    };
    row({""}, names);
    row({"--json", ""}, names);
    row({"--bus=unix:path=/b", ""}, names);
    row({"help", ""}, names);
    row({"wait", ""}, states);
    row({"wait", "--timeout", "5", ""}, states);
    row({"wait", "--timeout", ""}, {});
    row({"wait", "--timeout=5", "--", "-"}, states);
    row({"wait", "mounted", ""}, {});
    row({"--bus", ""}, {});
    row({"status", ""}, {});
    row({"moniter", ""}, {});
    row({"check-config", ""}, kFiles);
    row({"status", "--config", ""}, kFiles);
}

void CompletionTest::every_option_is_offered_where_it_is_taken()
{
    for (const Command& command : commands()) {
        QStringList expected;
        for (const Option& option : kOptions) {
            if (command.takes(option)) {
                expected.append(QString("--") + option.name);
            }
        }
        QCOMPARE(candidatesFor({command.name, "-"}), expected);
    }
    QCOMPARE(candidatesFor({"-"}), (QStringList{"--help", "--version", "--json", "--bus"}));
}

void CompletionTest::directories_come_from_the_running_service()
{
    QCOMPARE(candidatesFor(onCard({"path", ""})), QStringList());
    FakeService service(mBus);
    SampleCard::mount(service);
    service.directories.remove("archive");
    for (const char* const command : {"path", "size", "used"}) {
        QCOMPARE(candidatesFor(onCard({command, ""})), (QStringList{"logger", "csv"}));
    }
    QCOMPARE(candidatesFor(onCard({"ensure", ""})), QStringList{"logger"});
    QCOMPARE(
        candidatesFor({"ensure", "--bus=" + mBus.address(), "--config=" + mCard.configFile(), ""}),
        QStringList{"logger"});
}

void CompletionTest::bash_offers_what_begins_like_the_word()
{
    QCOMPARE(completionsOf({"re"}), (QStringList{"refresh", "remove"}));
    QCOMPARE(completionsOf({"--ju"}), QStringList());
    QCOMPARE(completionsOf({"--j"}), QStringList{"--json"});
    QCOMPARE(completionsOf({"check-config", mCard.configFile().chopped(3)}),
             QStringList{mCard.configFile()});
}

void CompletionTest::addresses_that_bash_breaks_into_words_are_one_word()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    for (const char* const option : {"--bus ", "--bus="}) {
        const QString line =
            option + mBus.address() + " --config=" + mCard.configFile() + " path l";
        QVERIFY(brokenByBash(line).size() > 8);
        QCOMPARE(completionsOf(brokenByBash(line)), QStringList{"logger"});
        QCOMPARE(completionsOf(brokenByBash(option + mBus.address())), QStringList());
    }
}

void CompletionTest::bash_quotes_identifiers_and_completes_them_from_its_last_break()
{
    const QTemporaryDir directory;
    FakeService service(mBus);
    const auto call = [&](const QString& id, const QStringList& words) {
        QFile file(directory.filePath("card.xml"));
        if (file.open(QIODevice::WriteOnly)) {
            file.write("<sdcard><dir size='1'>" + id.toUtf8() + "</dir></sdcard>");
        }
        file.close();
        service.directories = {{id, {"/" + id, 0, 0}}};
        return completionsOf(
            QStringList{"--bus", mBus.address(), "--config", file.fileName(), "path"} + words);
    };
    QCOMPARE(call("old logs", {"old"}), QStringList{"old\\ logs"});
    QCOMPARE(call("old logs", {"old\\ l"}), QStringList{"old\\ logs"});
    QCOMPARE(call("a:b=cd", {"a"}), QStringList{"a:b=cd"});
    QCOMPARE(call("a:b=cd", {"a", ":", "b"}), QStringList{"b=cd"});
    QCOMPARE(call("a:b=cd", {"a", ":", "b", "=", "c"}), QStringList{"cd"});
}

void CompletionTest::zsh_and_fish_offer_the_candidates()
{
    FakeService service(mBus);
    SampleCard::mount(service);
    const QTemporaryDir home;
    const QString completions = SOURCE_DIRECTORY "/sdcardctl/";
    QVERIFY(QFile::copy(completions + "sdcardctl.zsh", home.filePath("_sdcardctl")));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", home.path());
    environment.insert("PATH", QFileInfo(SDCARDCTL_PROGRAM).path() + ":" + qgetenv("PATH"));
    const QString line = "sdcardctl " + onCard({}).join(' ');

    QProcess fish;
    fish.setProcessEnvironment(environment);
    fish.start("fish",
               {"--no-config", "--command",
                QString("source %1sdcardctl.fish; complete -C '%2 path l'; "
                        "complete -C 'sdcardctl wait clo'; complete -C 'sdcardctl check-config %3'")
                    .arg(completions, line, home.filePath("_sd"))});
    QCOMPARE(outputOf(fish), "logger\nclosing-files\twaiting for programs to close files\n" +
                                 home.filePath("_sdcardctl") + "\n");

    // zsh completes only input from a terminal.
    QProcess zsh;
    zsh.setProcessEnvironment(environment);
    zsh.start("script",
              {"--quiet", "--return", "--command", "stty -echo; exec zsh -f -i", "/dev/null"});
    zsh.write(QString("fpath=(%1 $fpath); autoload -Uz compinit; compinit -u -D\n"
                      "sdcardctl --bus %2 wa\t clo\t --tim\t 0\n"
                      "sdcardctl check-config %1/_sd\t\nexit\n")
                  .arg(home.path(), mBus.address())
                  .toUtf8());
    const QString shown = outputOf(zsh);
    QVERIFY2(shown.contains("Timed out waiting for closing-files"), qPrintable(shown));
    QVERIFY2(shown.contains("_sdcardctl: 1 error"), qPrintable(shown));
}

QTEST_GUILESS_MAIN(CompletionTest)
#include "CompletionTest.moc"
