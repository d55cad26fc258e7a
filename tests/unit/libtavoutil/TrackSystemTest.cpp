#include <tavoutil/TrackSystem.h>

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

/// Whether standard error ends with the report on the file and the two records.
bool isSubstituted(const Outcome& outcome, const QString& file)
{
    const QString time = "\n[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2},[0-9]{3} ";
    const QRegularExpression end(
        "(^|\n)" +
        QRegularExpression::escape("Cannot use tracking configuration '" + file +
                                   "'; log records go to standard error") +
        time + "INFO  sdcard: gr\u00fcn \u20ac" + time + "ERROR config: broken$");
    return end.match(outcome.standardError.join('\n')).hasMatch();
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
    void appenders_that_work_are_kept_beside_one_that_does_not();
    void a_logger_without_additivity_gets_the_substitute_too();
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
    row("empty file", "", "Error parsing file");
    row("no log4cxx configuration", "<sdcard/>", "DOM element is - not a <configuration> element");
    row("no appender", configuration("<root><level value='info'/></root>"), "");
    row("appender that no logger refers to", configuration(appender("ConsoleAppender", kLayout)),
        "");
    row("undefined appender", configuration(kRoot), "No appender named [a] could be found");
    row("appender without layout", configuration(appender("ConsoleAppender", "") + kRoot),
        "No layout set for the appender named [a]");
    row("file in a missing directory", configuration(fileAppender("/proc/missing/log") + kRoot),
        "No such file or directory");
    row("group with an appender that does not work",
        configuration("<appender name='b' class='org.apache.log4j.ConsoleAppender'/>" +
                      appender("AsyncAppender", "<appender-ref ref='b'/>") + kRoot),
        "No layout set for the appender named [b]");
}

void TrackSystemTest::a_file_that_cannot_be_used_sends_records_to_standard_error()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, reason);
    const QString file = write(content);
    const Outcome outcome = run(file);
    QCOMPARE(outcome.status, 0);
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QVERIFY(isSubstituted(outcome, file));
    QVERIFY2(outcome.standardError.join('\n').contains(reason),
             qPrintable(outcome.standardError.join('\n')));
}

void TrackSystemTest::appenders_that_work_are_kept_beside_one_that_does_not()
{
    const QString file = write(configuration(
        fileAppender(path("kept")) +
        "<appender name='b' class='org.apache.log4j.ConsoleAppender'/>"
        "<root><level value='info'/><appender-ref ref='a'/><appender-ref ref='b'/></root>"));
    const Outcome outcome = run(file);
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QVERIFY(isSubstituted(outcome, file));
    QCOMPARE(lines(content("kept")).size(), 2);
}

void TrackSystemTest::a_logger_without_additivity_gets_the_substitute_too()
{
    const QString file = write(configuration(
        appender("ConsoleAppender", "") +
        "<logger name='config' additivity='false'><appender-ref ref='a'/></logger>" + kRoot));
    const Outcome outcome = run(file);
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QVERIFY(isSubstituted(outcome, file));
}

void TrackSystemTest::no_configuration_is_taken_from_the_working_directory()
{
    QFile other(mDirectory.filePath("log4cxx.xml"));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.write(configuration(fileAppender(path("stray")) + kRoot));
    other.close();
    const QString missing = mDirectory.filePath("missing.xml");
    const Outcome outcome = run(missing);
    QCOMPARE(outcome.standardOutput, QStringList{"unusable"});
    QVERIFY(isSubstituted(outcome, missing));
    QVERIFY(!QFile::exists(mDirectory.filePath("stray")));
    QVERIFY(other.remove());
}

QTEST_APPLESS_MAIN(TrackSystemTest)
#include "TrackSystemTest.moc"
