#include "ConfigCheck.h"

#include <QTest>

#include <QJsonArray>
#include <QTemporaryFile>

#include "Commands.h"
#include "JsonText.h"
#include "ProgramRun.h"

using namespace sdcardctl;

class ConfigCheckTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_good_configuration_gives_no_findings();
    void every_error_is_found_with_its_place();
    void children_of_a_broken_directory_are_checked_too();
    void a_file_that_is_no_XML_gives_one_error_with_its_place();
    void probable_mistakes_give_warnings();
    void an_unknown_attribute_of_the_root_gives_a_warning();
    void unusual_but_valid_content_gives_no_warnings();
    void the_program_prints_one_line_for_each_finding();
    void the_program_writes_findings_for_programs();
    void the_program_fails_on_errors_and_on_warnings_only_if_asked();
};

namespace {

class Document
{
public:
    explicit Document(const QByteArray& text)
    {
        if (mFile.open()) {
            mFile.write(text);
            mFile.flush();
        }
    }
    QString name() const { return mFile.fileName(); }

private:
    QTemporaryFile mFile;
};

QStringList findingsIn(const QByteArray& text)
{
    const Document document(text);
    QStringList found;
    for (const ConfigFinding& finding : checkConfig(document.name())) {
        found.append(QString("%1:%2 %3: %4")
                         .arg(finding.line)
                         .arg(finding.column)
                         .arg(finding.severity == ConfigFinding::Error ? "error" : "warning",
                              finding.message));
    }
    return found;
}

const QByteArray kGood = R"(<?xml version="1.0"?>
<sdcard mountpoint="/media/card" devicepath="/dev/mmcblk1p1">
  <dir size="50" capacitywatch="true" mode="0750" owner="root:root">logs
    <dir size="33.3">old</dir>
    <dir size="66.7" capacitywatch="false" owner=":root" mode="2775">new</dir>
    <symlink target="new">current</symlink>
    <symlink target="../data">data</symlink>
  </dir>
  <dir size="50">data</dir>
  <symlink target="logs/current">now</symlink>
  <symlink target="/media/card/logs">absolute</symlink>
  <symlink target="/etc">system</symlink>
</sdcard>
)";

} // namespace

void ConfigCheckTest::a_good_configuration_gives_no_findings()
{
    QCOMPARE(findingsIn(kGood), QStringList());
    QCOMPARE(findingsIn("<sdcard/>"), QStringList());
}

void ConfigCheckTest::every_error_is_found_with_its_place()
{
    QCOMPARE(findingsIn(R"(<sdcard>
  <dir size="1"/>
  <dir>a</dir>
  <dir/>
  <dir size="1%">b</dir>
  <symlink target="a"/>
  <symlink>c</symlink><symlink/>
  <link>d</link>
</sdcard>)"),
             (QStringList{"2:3 error: Content of node 'dir' not definied",
                          "3:3 error: Attribute 'size' of node 'dir' not found",
                          "4:3 error: Content of node 'dir' not definied",
                          "4:3 error: Attribute 'size' of node 'dir' not found",
                          "5:3 error: Attribute 'size' of node 'dir' with format error",
                          "6:3 error: Content of node 'symlink' not definied",
                          "7:3 error: Attribute 'target' of node 'symlink' not found",
                          "7:23 error: Content of node 'symlink' not definied",
                          "7:23 error: Attribute 'target' of node 'symlink' not found",
                          "8:3 error: Unsupported node 'link' found"}));
}

void ConfigCheckTest::children_of_a_broken_directory_are_checked_too()
{
    QCOMPARE(findingsIn(R"(<sdcard>
  <dir>a
    <dir size="x">b <dir size="101">c</dir> </dir>
  </dir>
</sdcard>)"),
             (QStringList{"2:3 error: Attribute 'size' of node 'dir' not found",
                          "3:5 error: Attribute 'size' of node 'dir' with format error",
                          "3:21 warning: with 'c' the shares of the directories in '/a/b' come "
                          "to 101 %"}));
}

void ConfigCheckTest::a_file_that_is_no_XML_gives_one_error_with_its_place()
{
    const QStringList findings = findingsIn("<sdcard>\n  <dir size='1'>a\n</sdcard>\n");
    QCOMPARE(findings.size(), 1);
    QVERIFY2(findings.first().startsWith("3:9 error: Opening and ending tag mismatch"),
             qPrintable(findings.first()));
}

void ConfigCheckTest::probable_mistakes_give_warnings()
{
    // clang-format off
    const QVector<QPair<QByteArray, QString>> warnings{
        {"<dir size='60'>a</dir><dir size='40.5'>b</dir>",                    "with 'b' the shares of the directories on the card come to 100.5 %"},
        {"<dir size='10'>a<dir size='101'>b</dir></dir>",                     "with 'b' the shares of the directories in '/a' come to 101 %"},
        {"<dir size='0'>a</dir>",                                             "the share of 'a' is 0 %; it must be a number above 0"},
        {"<dir size='-5'>a</dir>",                                            "the share of 'a' is -5 %; it must be a number above 0"},
        {"<dir size='nan'>a</dir>",                                           "the share of 'a' is nan %; it must be a number above 0"},
        {"<dir size='inf'>a</dir>",                                           "the share of 'a' is inf %; it must be a number above 0"},
        {"<dir size='0' capacitywatch='true'>a</dir>",                        "the share of 'a' is 0 %; it must be a number above 0, or every file in this watched directory is deleted"},
        {"<dir size='nan' capacitywatch='true'>a</dir>",                      "the share of 'a' is nan %; it must be a number above 0"},
        {"<dir size='1'>a<dir size='1'>b</dir></dir>\n<dir size='1'>b</dir>", "the identifier 'b' belongs to the directory of line 1; this one is not reached by any call"},
        {"<dir size='1'>a<dir size='1'>b</dir></dir>\n<dir size='1' capacitywatch='true'>b</dir>", "the identifier 'b' belongs to the directory of line 1; this one is reached by EnsureDirSize only"},
        {"<dir size='1'>a<dir size='1' capacitywatch='true'>b</dir></dir>\n<dir size='1' capacitywatch='true'>b</dir>", "the identifier 'b' belongs to the directory of line 1; this one is not reached by any call"},
        {"<dir size='1'>a</dir><symlink target='/etc'>a</symlink>",           "'/a' is already used by line 1"},
        {"<dir size='1'>a/b</dir>",                                           "the name 'a/b' is not one component of a path"},
        {"<dir size='1'>..</dir>",                                            "the name '..' is not one component of a path"},
        {"<symlink target='/etc'>a/b</symlink>",                              "the name 'a/b' is not one component of a path"},
        {"<dir size='1'>a\n<dir size='1'>b</dir>\nc</dir>",                   "the name contains a line break or another control character; is there text before and after a nested element?"},
        {"<dir size='1'>\xC3\xA4</dir>",                                      "the name contains characters beyond ASCII, which are different on the card"},
        {"<dir size='1'>" + QByteArray(256, 'a') + "</dir>",                  "the name is longer than 255 bytes, so it cannot be created"},
        {"<dir size='1' capacitywatch='TRUE'>a</dir>",                        "'capacitywatch' is 'TRUE'; only 'true' switches it on"},
        {"<dir size='1' mode='0789'>a</dir>",                                 "the mode '0789' is not an octal number up to 7777; it is read as 0007"},
        {"<dir size='1' mode='10755'>a</dir>",                                "the mode '10755' is not an octal number up to 7777; it is read as 10755"},
        {"<dir size='1' owner='nosuchuser'>a</dir>",                          "this machine has no user 'nosuchuser'; the directory would belong to root"},
        {"<dir size='1' owner='root:nosuchgroup'>a</dir>",                    "this machine has no group 'nosuchgroup'; the directory would belong to the group root"},
        {"<symlink target='nowhere'>a</symlink>",                             "the target 'nowhere' is no configured directory of the card"},
        {"<symlink target='/nonexistent/place'>a</symlink>",                  "the target '/nonexistent/place' is outside the card and missing on this machine"},
        {"<symlink target='a'>a</symlink>",                                   "the target 'a' is a loop of links"},
        {"<symlink target='/etc'>a<dir size='1'>b</dir></symlink>",           "elements inside a link are ignored"},
        {"<dir size='1' capacitywach='true'>a</dir>",                         "the attribute 'capacitywach' is ignored"},
        {"<symlink target='/etc' mode='0755'>a</symlink>",                    "the attribute 'mode' is ignored"},
        {"<dir size='1'>a</dir><symlink target='\xC3\xA4/../a'>b</symlink>",  "the target contains characters beyond ASCII, which are different on the card"},
    };
    // clang-format on
    for (const auto& [content, warning] : warnings) {
        const QStringList findings = findingsIn("<sdcard>" + content + "</sdcard>");
        QCOMPARE(findings.size(), 1);
        QVERIFY2(QRegularExpression("^[12]:\\d+ warning: ").match(findings.first()).hasMatch() &&
                     findings.first().endsWith(": " + warning),
                 qPrintable(findings.first() + "\nexpected: " + warning));
    }
}

void ConfigCheckTest::an_unknown_attribute_of_the_root_gives_a_warning()
{
    QCOMPARE(findingsIn("<sdcard size='1' mountPoint='/a'/>"),
             (QStringList{"1:1 warning: the attribute 'size' is ignored",
                          "1:1 warning: the attribute 'mountPoint' is ignored"}));
    QCOMPARE(findingsIn("<sdcard xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
                        "xsi:noNamespaceSchemaLocation='tavo-sdcard.config.xsd'/>"),
             QStringList());
}

void ConfigCheckTest::unusual_but_valid_content_gives_no_warnings()
{
    // Shares that add up to 100 in decimal only; two links of the same name; a link with the name
    // of a directory elsewhere; dots in names and targets; a link through a link that follows
    // later.
    for (const QByteArray content :
         {"<dir size='33.3'>a</dir><dir size='33.3'>b</dir><dir size='33.4'>c</dir>",
          "<dir size='1'>a<symlink target='/etc'>x</symlink></dir><symlink "
          "target='/etc'>x</symlink>",
          "<dir size='1'>a<dir size='1'>b</dir></dir><symlink target='a/b'>b</symlink>",
          "<dir size='1'>a..b</dir><dir size='1'>a</dir><symlink target='./a/../a/.'>b</symlink>",
          "<symlink target='b'>a</symlink><symlink target='/media/sdcard/c'>b</symlink>"
          "<dir size='1'>c</dir>"}) {
        QCOMPARE(findingsIn("<sdcard>" + content + "</sdcard>"), QStringList());
    }
}

void ConfigCheckTest::the_program_prints_one_line_for_each_finding()
{
    const Document bad("<sdcard><dir size='0'>a</dir>\n<dir size='1'/></sdcard>");
    ProgramRun run({"check-config", bad.name()});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QCOMPARE(run.output(),
             QString("%1:1:9: warning: the share of 'a' is 0 %; it must be a number above 0\n"
                     "%1:2:1: error: Content of node 'dir' not definied\n"
                     "%1: 1 error, 1 warning\n")
                 .arg(bad.name()));
    QCOMPARE(run.notes(), QString());

    const Document good(kGood);
    QCOMPARE(ProgramRun::answer({"check-config", good.name()}), good.name() + ": no problems\n");

    ProgramRun missing({"check-config", "/nonexistent.xml"});
    QCOMPARE(missing.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QVERIFY2(missing.output().startsWith("/nonexistent.xml: error: No such file"),
             qPrintable(missing.output()));
}

void ConfigCheckTest::the_program_writes_findings_for_programs()
{
    const Document bad("<sdcard>\n  <dir size='1'/></sdcard>");
    ProgramRun run({"check-config", "--json", bad.name()});
    QCOMPARE(run.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    const QJsonObject finding{{"severity", "error"},
                              {"line", 2},
                              {"column", 3},
                              {"message", "Content of node 'dir' not definied"}};
    QCOMPARE(jsonOf(run.output()),
             (QJsonObject{{"file", bad.name()}, {"findings", QJsonArray{finding}}}));
}

void ConfigCheckTest::the_program_fails_on_errors_and_on_warnings_only_if_asked()
{
    const Document odd("<sdcard><dir size='0'>a</dir></sdcard>");
    const QString lenient = ProgramRun::answer({"check-config", odd.name()});
    ProgramRun strict({"check-config", "--strict", "--no-legend", odd.name()});
    QCOMPARE(strict.status(), ProgramRun::number(ExitStatus::BadConfiguration));
    QCOMPARE(lenient, strict.output() + odd.name() + ": 0 errors, 1 warning\n");
}

QTEST_GUILESS_MAIN(ConfigCheckTest)
#include "ConfigCheckTest.moc"
