#include <QTest>

#include <QDir>
#include <QProcess>
#include <QTemporaryFile>

#include "ConfigCheck.h"

class ConfigSchemaTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_shipped_configurations_are_valid();
    void good_content_is_valid();
    void bad_content_is_invalid();
    void schema_and_check_agree_on_a_value_data();
    void schema_and_check_agree_on_a_value();
};

namespace {

constexpr int kValid = 0;
constexpr int kInvalid = 3; // exit status of xmllint for an invalid file

// The exit status of xmllint; -1 if it does not run.
int validate(const QString& file, const QByteArray& content = QByteArray())
{
    QProcess xmllint;
    xmllint.setStandardErrorFile(QProcess::nullDevice());
    xmllint.start("xmllint", {"--noout", "--schema",
                              SOURCE_DIRECTORY "/platform/tavo-sdcard.config.xsd", file});
    xmllint.write(content);
    xmllint.closeWriteChannel();
    return xmllint.waitForFinished() && xmllint.exitStatus() == QProcess::NormalExit
               ? xmllint.exitCode()
               : -1;
}

// The exceptions: contents that the schema judges differently.
QByteArrayList misjudged(const QByteArrayList& contents, int expected)
{
    QByteArrayList found;
    for (const QByteArray& content : contents) {
        if (validate("-", "<sdcard>" + content + "</sdcard>") != expected) {
            found.append(content);
        }
    }
    return found;
}

} // namespace

void ConfigSchemaTest::the_shipped_configurations_are_valid()
{
    const QDir platform(SOURCE_DIRECTORY "/platform", "*sdcard*.config.xml");
    QVERIFY(!platform.entryList().isEmpty());
    for (const QFileInfo& file : platform.entryInfoList()) {
        QCOMPARE(validate(file.filePath()), kValid);
        QVERIFY(sdcardctl::checkConfig(file.filePath()).isEmpty());
    }
}

void ConfigSchemaTest::good_content_is_valid()
{
    const QByteArrayList contents{
        "",
        "<dir size='12.5'>\n  logs.old 1\n</dir>",
        "<dir size='1' capacitywatch='false' mode='0750' owner='www-data:adm'>a</dir>",
        "<dir size='1' mode='02775' owner='root'>a<dir size='1'>b</dir></dir>",
        "<dir size='1'>a<symlink target='..'>b</symlink></dir>",
        "<symlink target='/etc'>\n  x\n</symlink><dir size='1'>b</dir>"};
    QCOMPARE(misjudged(contents, kValid), QByteArrayList());
}

void ConfigSchemaTest::bad_content_is_invalid()
{
    const QByteArrayList contents{"text",
                                  "<dir>a</dir>",
                                  "<dir size='1' sizes='1'>a</dir>",
                                  "<Dir size='1'>a</Dir>",
                                  "<symlink>a</symlink>",
                                  "<symlink target=''>a</symlink>",
                                  "<symlink target='a'/>",
                                  "<symlink target='a'>b/c</symlink>",
                                  "<symlink target='a'>..</symlink>",
                                  "<symlink target='a'>b<dir size='1'>c</dir></symlink>",
                                  "<dir size='1'>a<file/></dir>",
                                  "<sdcard/>"};
    QCOMPARE(misjudged(contents, kInvalid), QByteArrayList());
}

void ConfigSchemaTest::schema_and_check_agree_on_a_value_data()
{
    QTest::addColumn<QByteArray>("attributes");
    QTest::addColumn<bool>("isGood");
    const auto rows = [](const char* attributes, const QByteArrayList& values, bool isGood) {
        for (const QByteArray& value : values) {
            const QByteArray text = attributes + ("='" + value) + "'";
            QTest::newRow(text.constData()) << text << isGood;
        }
    };
    rows("size", {"12.5", ".5", "5.", "+5", " 15 ", "1e1", "1E-3", "100"}, true);
    rows("size", {"", "0", "0e1", "-1", "1e3", "100.1", "1,5", "15%", "0x10", "nan", "NaN", "inf"},
         false);
    rows("size='1' mode", {"", "0", "7", "55", "755", "0755", "00755", "0000002775", "7777"}, true);
    rows("size='1' mode", {"8", "0789", "10755", "77777", "0o755", "rwx", " 755", "+755", "-1"},
         false);
    rows("size='1' owner", {"", "root", "root:root", ":root", "root:", ":"}, true);
    rows("size='1' owner", {"root:root:root"}, false);
    rows("size='1' capacitywatch", {"true", "false"}, true);
    rows("size='1' capacitywatch", {"", "TRUE", "1", " true"}, false);
}

void ConfigSchemaTest::schema_and_check_agree_on_a_value()
{
    QFETCH(const QByteArray, attributes);
    QFETCH(const bool, isGood);
    QTemporaryFile file;
    QVERIFY(file.open());
    file.write("<sdcard><dir " + attributes + ">a</dir></sdcard>");
    QVERIFY(file.flush());
    QCOMPARE(validate(file.fileName()), isGood ? kValid : kInvalid);
    QCOMPARE(sdcardctl::checkConfig(file.fileName()).isEmpty(), isGood);
}

QTEST_APPLESS_MAIN(ConfigSchemaTest)
#include "ConfigSchemaTest.moc"
