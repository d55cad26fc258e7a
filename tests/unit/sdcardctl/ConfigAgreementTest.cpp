#include <QTest>

#include <random>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "ConfigCheck.h"
#include "LogCapture.h"
#include "config.h"

using namespace sdcardctl;

/// Compares the check of a configuration with how the service reads it.
class ConfigAgreementTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void check_and_service_agree_on_a_file();
    void check_and_service_agree_on_random_configurations();

private:
    QTemporaryDir mDirectory;
};

namespace {

const QByteArray kConfiguration = R"(<?xml version="1.0" encoding="UTF-8"?>
<sdcard mountpoint="/media/sdcard" devicepath="/dev/mmcblk0p1">
  <dir size="40" capacitywatch="true" mode="0750" owner="root:root">logger
    <dir size="25"><!-- a comment -->archive<symlink target="../..">up</symlink></dir>
  </dir>
  <dir size="1e1">csv</dir>
  <symlink target="logger/archive">archive</symlink>
</sdcard>
)";

// The result of the service's reading of a file.
struct Reading
{
    bool isAccepted;
    QString error; ///< its first record of this level
};

Reading readingOf(const QString& file)
{
    const LogCapture log;
    ConfigHandler config;
    config.setConfigFile(file);
    const bool isAccepted = config.setup();
    return {isAccepted, log.messages(LogLevel::Error).value(0)};
}

// Empty if check and service agree, otherwise the difference.
QString disagreement(const QString& file, const Reading& service)
{
    QStringList errors;
    for (const ConfigFinding& finding : checkConfig(file)) {
        if (finding.severity == ConfigFinding::Error) {
            errors.append(finding.message);
        }
    }
    if (service.isAccepted && errors.isEmpty()) {
        return {};
    }
    // The service stops at the first error, so it must be the first error of the check.
    const QString parsing = "Parsing errror: " + errors.value(0) + " in file '" + file + "'";
    const QString opening = "Could not parse file : " + file + " " + errors.value(0);
    return !errors.isEmpty() && (service.error == parsing || service.error == opening)
               ? QString()
               : "the service logs \"" + service.error +
                     "\", the check reports: " + errors.join("; ");
}

void write(const QString& file, const QByteArray& content)
{
    QFile out(file);
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(content);
}

// Random configurations, most of them well-formed.
class RandomConfig
{
public:
    QByteArray text()
    {
        QByteArray all = "<sdcard>" + elements(3) + "</sdcard>";
        return below(10) == 0 ? all.remove(below(all.size()), 1 + below(12)) : all;
    }

private:
    QByteArray elements(int depth)
    {
        static const QByteArrayList kNames{"dir", "dir", "dir", "dir", "dir", "symlink", "file"};
        static const QByteArrayList kAttributes{" size='40'",  " size='1e1'",    " size=' 7 '",
                                                " size='nan'", " size='-1e400'", " size='1,5'",
                                                " size=''",    " Size='5'",      "",
                                                " target=''",  " target='../..'"};
        static const QByteArrayList kTexts{
            "logger",        "a/b",     "..", "", " ", "&#65;", "<!-- comment -->c",
            "<![CDATA[y]]>", "\xC3\xA4"};
        QByteArray all;
        for (int count = below(3); count > 0 && depth > 0; --count) {
            const QByteArray name = oneOf(kNames);
            const QByteArray attribute = name == "symlink" ? " target='x'" : oneOf(kAttributes);
            all += "<" + name + attribute + ">" + oneOf(kTexts) + elements(depth - 1) + "</" +
                   name + ">";
        }
        return all;
    }
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(mRandom); }
    const QByteArray& oneOf(const QByteArrayList& list) { return list.at(below(list.size())); }

    std::mt19937 mRandom{20}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same documents every time
};

} // namespace

void ConfigAgreementTest::check_and_service_agree_on_a_file()
{
    QStringList files{"/nonexistent.xml", "/etc"};
    for (const char* const place : {"/platform", "/tests/fuzz/corpus/xml"}) {
        const QDir directory(QString(SOURCE_DIRECTORY) + place, "*.xml");
        for (const QFileInfo& file : directory.entryInfoList()) {
            files.append(file.filePath());
        }
    }
    QVERIFY(files.size() > 12);
    const QByteArrayList contents{
        kConfiguration,
        "<sdcard/>",
        "<sdcard>text</sdcard>",
        "<sdcard><dir size='1'> \n </dir></sdcard>",
        "<sdcard><dir size='1%'>a</dir></sdcard>",
        "<sdcard><dir size='0x10'>a</dir></sdcard>",
        "<sdcard><dir size='1' mode='' owner=''>a</dir></sdcard>",
        "<sdcard><symlink>a</symlink></sdcard>",
        "<sdcard><symlink target='a'/></sdcard>",
        "<sdcard><symlink target='a'>b<foo/></symlink></sdcard>",
        "<sdcard><Dir size='1'>a</Dir></sdcard>",
        "<sdcard><dir size='1'>a<dir size='1'>b<x/></dir></dir></sdcard>",
        "<sdcard><sdcard/></sdcard>",
        "<sdcard xmlns:x='y'><x:dir size='1'>a</x:dir></sdcard>",
        "<sdcard><dir>a<foo/></dir><symlink/></sdcard>",
        "<sdcard><dir>a</dir>",
        "<sdcard><\xC3\xA4/></sdcard>",
    };
    for (const QByteArray& content : contents) {
        files.append(mDirectory.filePath(QString::number(files.size()) + ".xml"));
        write(files.last(), content);
    }
    for (const QString& file : files) {
        const QString difference = disagreement(file, readingOf(file));
        QVERIFY2(difference.isEmpty(), qPrintable(file + ": " + difference));
    }
}

void ConfigAgreementTest::check_and_service_agree_on_random_configurations()
{
    constexpr int kDocuments = 1000;
    RandomConfig random;
    const QString file = mDirectory.filePath("random.xml");
    int accepted = 0;
    int refusedElements = 0;
    for (int i = 0; i < kDocuments; ++i) {
        const QByteArray text = random.text();
        write(file, text);
        const Reading service = readingOf(file);
        const QString difference = disagreement(file, service);
        QVERIFY2(difference.isEmpty(), qPrintable(difference + "\n" + text));
        accepted += service.isAccepted ? 1 : 0;
        refusedElements += service.error.startsWith("Parsing errror: ") ? 1 : 0;
    }
    // The series contains both outcomes.
    QVERIFY2(accepted > kDocuments / 10, qPrintable(QString::number(accepted)));
    QVERIFY2(refusedElements > kDocuments / 10, qPrintable(QString::number(refusedElements)));
}

QTEST_APPLESS_MAIN(ConfigAgreementTest)
#include "ConfigAgreementTest.moc"
