#include <tavoutil/TrackSystem.h>

#include <csignal>

#include <sys/stat.h>

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

const char* const kLayout = "<layout class='org.apache.log4j.PatternLayout'>"
                            "<param name='ConversionPattern' value='%p %c %F %M: %m%n'/></layout>";
const char* const kRoot = "<root><level value='info'/><appender-ref ref='a'/></root>";

QByteArray configuration(const QByteArray& content)
{
    return "<?xml version='1.0' encoding='UTF-8'?>\n"
           "<log4j:configuration xmlns:log4j='http://jakarta.apache.org/log4j/'>" +
           content + "</log4j:configuration>";
}

QByteArray appender(const QByteArray& type, const QByteArray& content)
{
    return "<appender name='a' class='org.apache.log4j." + type + "'>" + content + "</appender>";
}

QByteArray fileAppender(const QByteArray& file)
{
    return appender("FileAppender", "<param name='File' value='" + file + "'/>" + kLayout);
}

struct Outcome
{
    int status = -1;
    QStringList standardOutput;
    QStringList standardError;
};

QStringList lines(const QByteArray& output)
{
    return QString::fromUtf8(output).split('\n', Qt::SkipEmptyParts);
}

/// The records as the substitute for a configured appender writes them.
bool areRecords(const QStringList& written)
{
    const QString time = "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2},[0-9]{3} ";
    return written.size() == 2 &&
           QRegularExpression(time + "INFO  sdcard: gr\u00fcn \u20ac$")
               .match(written[0])
               .hasMatch() &&
           QRegularExpression(time + "ERROR config: broken$").match(written[1]).hasMatch();
}

} // namespace

class TrackSystemTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void records_go_where_the_file_says();
    void records_in_the_c_locale_are_utf8_data();
    void records_in_the_c_locale_are_utf8();
    void levels_are_those_of_the_file();
    void a_file_that_cannot_be_used_sends_records_to_standard_error_data();
    void a_file_that_cannot_be_used_sends_records_to_standard_error();
    void a_pipe_sends_records_to_standard_error_at_once();
    void appenders_that_work_are_kept_beside_one_that_does_not();
    void a_logger_that_hands_nothing_on_gets_the_substitute_too();
    void a_remark_on_a_usable_file_is_told_in_one_line();
    void no_configuration_is_taken_from_the_working_directory();

private:
    QString write(const QByteArray& content);
    Outcome run(const QString& file, const QString& locale = "C");
    QByteArray content(const QString& name);
    QByteArray path(const QString& name) { return mDirectory.filePath(name).toUtf8(); }

    QTemporaryDir mDirectory;
};

QString TrackSystemTest::write(const QByteArray& content)
{
    QFile file(mDirectory.filePath("track.xml"));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(file.fileName()));
    }
    return file.fileName();
}

Outcome TrackSystemTest::run(const QString& file, const QString& locale)
{
    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("LC_ALL", locale);
    // The sanitizer's own report would follow a crash of the trial.
    environment.insert("ASAN_OPTIONS", "handle_segv=0");
    program.setProcessEnvironment(environment);
    program.setWorkingDirectory(mDirectory.path());
    program.start(TRACKING_PROGRAM, {file});
    if (!program.waitForFinished() || program.exitStatus() != QProcess::NormalExit) {
        return {};
    }
    return {program.exitCode(), lines(program.readAllStandardOutput()),
            lines(program.readAllStandardError())};
}

QByteArray TrackSystemTest::content(const QString& name)
{
    QFile file(mDirectory.filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

void TrackSystemTest::records_go_where_the_file_says()
{
    const Outcome outcome = run(write(configuration(fileAppender(path("records")) + kRoot)));
    QCOMPARE(outcome.status, 0);
    QCOMPARE(outcome.standardOutput, QStringList{"usable"});
    QCOMPARE(outcome.standardError, QStringList());
    QCOMPARE(content("records"), QByteArray("INFO sdcard TrackingProgram main: gr\u00fcn \u20ac\n"
                                            "ERROR config TrackingProgram write: broken\n"));
}

void TrackSystemTest::records_in_the_c_locale_are_utf8_data()
{
    QTest::addColumn<QString>("locale");
    for (const char* const locale : {"C", "POSIX", "C.UTF-8", "no-such-locale"}) {
        QTest::newRow(locale) << locale;
    }
}

void TrackSystemTest::records_in_the_c_locale_are_utf8()
{
    QFETCH(QString, locale);
    const QByteArray console = appender("ConsoleAppender", kLayout);
    const Outcome outcome = run(write(configuration(console + kRoot)), locale);
    QCOMPARE(outcome.standardOutput,
             (QStringList{"usable", "INFO sdcard TrackingProgram main: gr\u00fcn \u20ac",
                          "ERROR config TrackingProgram write: broken"}));
    QCOMPARE(outcome.standardError, QStringList());
}

void TrackSystemTest::levels_are_those_of_the_file()
{
    const QByteArray root = "<root><level value='warn'/><appender-ref ref='a'/></root>";
    run(write(configuration(fileAppender(path("warnings")) + root)));
    QCOMPARE(content("warnings"), QByteArray("ERROR config TrackingProgram write: broken\n"));
}

void TrackSystemTest::a_file_that_cannot_be_used_sends_records_to_standard_error_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("reason");

    const auto row = [](const char* name, const QByteArray& content, const QString& reason) {
        QTest::newRow(name) << content << reason;
    };
    row("empty file", "", "no root element");
    row("no XML", "log everything", "syntax error at line 1, column 1");
    row("cut off", "<log4j:configuration>\n<root>",
        "element 'root' of line 2, column 1 is not closed");
    row("no log4cxx configuration", "<sdcard/>", "DOM element is - not a <configuration> element");
    row("nothing configured", configuration(""), "no appender receives records");
    row("no appender", configuration("<root><level value='info'/></root>"),
        "no appender receives records");
    row("appender that no logger refers to", configuration(appender("ConsoleAppender", kLayout)),
        "no appender receives records");
    row("undefined appender", configuration(kRoot), "No appender named [a] could be found");
    row("appender of an unknown class", configuration(appender("FogAppender", kLayout) + kRoot),
        "Could not create an Appender. Reported error follows; Class not found: "
        "org.apache.log4j.FogAppender; No appender named [a] could be found");
    row("appender without layout", configuration(appender("ConsoleAppender", "") + kRoot),
        "No layout set for the appender named [a]");
    row("appender without file", configuration(appender("FileAppender", kLayout) + kRoot),
        "File option not set for appender [a]; "
        "Are you using FileAppender instead of ConsoleAppender?");
    row("file in a missing directory", configuration(fileAppender("/proc/missing/log") + kRoot),
        "setFile(/proc/missing/log,true) call failed; "
        "IO Exception : status code = 2(No such file or directory)");
    row("directory instead of a file", configuration(fileAppender("/proc") + kRoot),
        "setFile(/proc,true) call failed; IO Exception : status code = 21(Is a directory)");
    row("group with an appender that does not work",
        configuration("<appender name='b' class='org.apache.log4j.ConsoleAppender'/>" +
                      appender("AsyncAppender", "<appender-ref ref='b'/>") + kRoot),
        "No layout set for the appender named [b]");
    const QString crash = "log4cxx dies of it with signal " + QString::number(SIGSEGV);
    row("appender that contains itself",
        configuration(appender("AsyncAppender", "<appender-ref ref='a'/>") + kRoot), crash);
    row("layout in place of an appender", configuration(appender("PatternLayout", "") + kRoot),
        crash);
}

void TrackSystemTest::a_file_that_cannot_be_used_sends_records_to_standard_error()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, reason);
    const QString file = write(content);
    const Outcome outcome = run(file);
    QCOMPARE(outcome.status, 0);
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QCOMPARE(outcome.standardError.value(0), "Cannot use tracking configuration '" + file + "': " +
                                                 reason + "; log records go to standard error");
    QVERIFY2(areRecords(outcome.standardError.mid(1)),
             qPrintable(outcome.standardError.join('\n')));
}

void TrackSystemTest::a_pipe_sends_records_to_standard_error_at_once()
{
    QCOMPARE(mkfifo(path("pipe").constData(), 0600), 0);
    const Outcome outcome = run(path("pipe"));
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QCOMPARE(outcome.standardError.value(0),
             "Cannot use tracking configuration '" + mDirectory.filePath("pipe") +
                 "': not a regular file; log records go to standard error");
    QVERIFY(areRecords(outcome.standardError.mid(1)));
}

void TrackSystemTest::appenders_that_work_are_kept_beside_one_that_does_not()
{
    const Outcome outcome = run(write(configuration(
        fileAppender(path("kept")) +
        "<appender name='b' class='org.apache.log4j.ConsoleAppender'/>"
        "<root><level value='info'/><appender-ref ref='a'/><appender-ref ref='b'/></root>")));
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QVERIFY(areRecords(outcome.standardError.mid(1)));
    QCOMPARE(lines(content("kept")).size(), 2);
}

void TrackSystemTest::a_logger_that_hands_nothing_on_gets_the_substitute_too()
{
    const Outcome outcome = run(write(configuration(
        appender("ConsoleAppender", "") +
        "<logger name='config' additivity='false'><appender-ref ref='a'/></logger>" + kRoot)));
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QVERIFY2(areRecords(outcome.standardError.mid(1)),
             qPrintable(outcome.standardError.join('\n')));
}

void TrackSystemTest::a_remark_on_a_usable_file_is_told_in_one_line()
{
    const QString file = write(configuration(
        fileAppender(path("remarked")) +
        "<root><level value='info'/><appender-ref ref='a'/><appender-ref ref='b'/></root>"));
    const Outcome outcome = run(file);
    QCOMPARE(outcome.standardOutput, QStringList{"usable"});
    QCOMPARE(outcome.standardError, QStringList{"Tracking configuration '" + file +
                                                "': No appender named [b] could be found"});
    QCOMPARE(lines(content("remarked")).size(), 2);
}

void TrackSystemTest::no_configuration_is_taken_from_the_working_directory()
{
    QFile other(mDirectory.filePath("log4cxx.xml"));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.write(configuration(fileAppender(path("stray")) + kRoot));
    other.close();
    const Outcome outcome = run(mDirectory.filePath("missing.xml"));
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QCOMPARE(outcome.standardError.value(0),
             "Cannot use tracking configuration '" + mDirectory.filePath("missing.xml") +
                 "': No such file or directory; log records go to standard error");
    QVERIFY(areRecords(outcome.standardError.mid(1)));
    QVERIFY(!QFile::exists(mDirectory.filePath("stray")));
    QVERIFY(other.remove());
}

QTEST_APPLESS_MAIN(TrackSystemTest)
#include "TrackSystemTest.moc"
