#include <QTest>

#include <random>

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "ConfigCheck.h"
#include "LogCapture.h"
#include "config.h"

using namespace sdcardctl;

/// The check of a configuration and the service's reading of it, side by side.
class ConfigAgreementTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void check_and_service_agree_on_a_file_data();
    void check_and_service_agree_on_a_file();
    void check_and_service_agree_on_damaged_configurations();

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

// Empty where check and service agree, otherwise how they differ.
QString disagreement(const QString& file)
{
    const LogCapture log;
    ConfigHandler config;
    config.setConfigFile(file);
    const bool isAccepted = config.setup();

    QStringList errors;
    for (const ConfigFinding& finding : checkConfig(file)) {
        if (finding.severity == ConfigFinding::Error) {
            errors.append(finding.message);
        }
    }
    if (isAccepted != errors.isEmpty()) {
        return QString("the service %1 it, the check finds: %2")
            .arg(isAccepted ? "takes" : "refuses", errors.join("; "));
    }
    if (isAccepted) {
        return {};
    }
    // The service ends at the first problem: it has to be the check's first.
    const QString record = log.messages(LogLevel::Error).value(0);
    const QString parsing = "Parsing errror: " + errors.first() + " in file '" + file + "'";
    const QString opening = "Could not parse file : " + file + " " + errors.first();
    return record == parsing || record == opening
               ? QString()
               : "the service logs \"" + record + "\", the check finds: " + errors.join("; ");
}

void write(const QString& file, const QByteArray& content)
{
    QFile out(file);
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(content);
}

// A configuration with some damages: most leave it well-formed, one kind does not.
class Damager
{
public:
    QByteArray damaged(QByteArray text)
    {
        for (int damages = 1 + below(3); damages > 0 && !text.isEmpty(); --damages) {
            const int at = below(text.size());
            switch (below(4)) {
            case 0:
                text.insert(text.indexOf('>', at) + 1, oneOf(kElements));
                break;
            case 1:
                replace(text, oneOf(kPresentAttributes), oneOf(kAttributes));
                break;
            case 2:
                replace(text, oneOf(kPresentWords), oneOf(kWords));
                break;
            default:
                text.remove(at, 1 + below(12));
            }
        }
        return text;
    }

private:
    static const QByteArrayList kElements;
    static const QByteArrayList kPresentAttributes;
    static const QByteArrayList kAttributes;
    static const QByteArrayList kPresentWords;
    static const QByteArrayList kWords;

    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(mRandom); }
    const QByteArray& oneOf(const QByteArrayList& list) { return list.at(below(list.size())); }

    static void replace(QByteArray& text, const QByteArray& what, const QByteArray& by)
    {
        const int found = text.indexOf(what);
        if (found >= 0) {
            text.replace(found, what.size(), by);
        }
    }

    std::mt19937 mRandom{20}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same documents every time
};

const QByteArrayList Damager::kElements{"<dir size=\"5\">x</dir>",
                                        "<dir size=\"5\"/>",
                                        "<dir>x</dir>",
                                        "<symlink target=\"x\">y</symlink>",
                                        "<symlink>y</symlink>",
                                        "<symlink target=\"x\"/>",
                                        "<file/>",
                                        "text",
                                        "<!-- comment -->",
                                        "&#65;",
                                        "<![CDATA[y]]>"};
const QByteArrayList Damager::kPresentAttributes{"size=\"40\"", "size=\"25\"", "size=\"1e1\"",
                                                 "target=\"../..\"", "target=\"logger/archive\""};
const QByteArrayList Damager::kAttributes{"",
                                          "size=\"\"",
                                          "size=\"1,5\"",
                                          "size=\"nan\"",
                                          "size=\" 7 \"",
                                          "size=\"-1e400\"",
                                          "Size=\"5\"",
                                          "target=\"\"",
                                          "target=\"\xC3\xA4\"",
                                          R"(size="5" size="6")"};
const QByteArrayList Damager::kPresentWords{"logger", "archive", "csv", "up", "sdcard"};
const QByteArrayList Damager::kWords{"", " ", "..", "a/b", "\xC3\xA4", "\xFF", "&amp;", "&x;"};

} // namespace

void ConfigAgreementTest::check_and_service_agree_on_a_file_data()
{
    QTest::addColumn<QString>("file");
    QTest::newRow("missing file") << "/nonexistent.xml";
    QTest::newRow("directory") << "/etc";
    int files = 0;
    for (const char* const place : {"/platform", "/tests/fuzz/corpus/xml"}) {
        const QDir directory(QString(SOURCE_DIRECTORY) + place, "*.xml");
        for (const QFileInfo& file : directory.entryInfoList()) {
            QTest::newRow(qPrintable(file.fileName())) << file.filePath();
            ++files;
        }
    }
    QVERIFY(files > 10);
    const auto row = [this](const char* name, const QByteArray& content) {
        const QString file = mDirectory.filePath(QString(name) + ".xml");
        write(file, content);
        QTest::newRow(name) << file;
    };
    row("good", kConfiguration);
    row("no children", "<sdcard/>");
    row("text in the root", "<sdcard>text</sdcard>");
    row("name missing", "<sdcard><dir size='1'/></sdcard>");
    row("name of white space", "<sdcard><dir size='1'> \n </dir></sdcard>");
    row("size missing", "<sdcard><dir>a</dir></sdcard>");
    row("size empty", "<sdcard><dir size=''>a</dir></sdcard>");
    row("size with a comma", "<sdcard><dir size='1,5'>a</dir></sdcard>");
    row("size with a space", "<sdcard><dir size=' 15 '>a</dir></sdcard>");
    row("size with a percent sign", "<sdcard><dir size='15%'>a</dir></sdcard>");
    row("size nan", "<sdcard><dir size='nan'>a</dir></sdcard>");
    row("size out of range", "<sdcard><dir size='1e999'>a</dir></sdcard>");
    row("size in hexadecimal", "<sdcard><dir size='0x10'>a</dir></sdcard>");
    row("size with an exponent", "<sdcard><dir size='1e1'>a</dir></sdcard>");
    row("mode of one digit", "<sdcard><dir size='1' mode='7'>a</dir></sdcard>");
    row("mode with zeros before it", "<sdcard><dir size='1' mode='00755'>a</dir></sdcard>");
    row("mode empty", "<sdcard><dir size='1' mode=''>a</dir></sdcard>");
    row("owner empty", "<sdcard><dir size='1' owner=''>a</dir></sdcard>");
    row("target missing", "<sdcard><symlink>a</symlink></sdcard>");
    row("target empty", "<sdcard><symlink target=''>a</symlink></sdcard>");
    row("link name missing", "<sdcard><symlink target='a'/></sdcard>");
    row("element in a link", "<sdcard><symlink target='a'>b<foo/></symlink></sdcard>");
    row("unknown element", "<sdcard><Dir size='1'>a</Dir></sdcard>");
    row("unknown element deep inside",
        "<sdcard><dir size='1'>a<dir size='1'>b<x/></dir></dir></sdcard>");
    row("root inside the root", "<sdcard><sdcard/></sdcard>");
    row("prefix", "<sdcard xmlns:x='y'><x:dir size='1'>a</x:dir></sdcard>");
    row("two problems", "<sdcard><dir>a<foo/></dir><symlink/></sdcard>");
    row("problem before a broken end", "<sdcard><dir>a</dir>");
    row("name by reference", "<sdcard><dir size='1'>&#97;</dir></sdcard>");
    row("problem element beyond ASCII", "<sdcard><\xC3\xA4/></sdcard>");
}

void ConfigAgreementTest::check_and_service_agree_on_a_file()
{
    QFETCH(const QString, file);
    QCOMPARE(disagreement(file), QString());
}

void ConfigAgreementTest::check_and_service_agree_on_damaged_configurations()
{
    constexpr int kDocuments = 1000;
    Damager damager;
    const QString file = mDirectory.filePath("damaged.xml");
    int accepted = 0;
    int refusedElements = 0;
    for (int i = 0; i < kDocuments; ++i) {
        const QByteArray text = damager.damaged(kConfiguration);
        write(file, text);
        const QString difference = disagreement(file);
        QVERIFY2(difference.isEmpty(), qPrintable(difference + "\n" + text));

        const LogCapture log;
        ConfigHandler config;
        config.setConfigFile(file);
        accepted += config.setup() ? 1 : 0;
        refusedElements +=
            log.contains(LogLevel::Error, QRegularExpression("Parsing errror: .+")) ? 1 : 0;
    }
    // The damages are of a kind that shows something.
    QVERIFY2(accepted > kDocuments / 10, qPrintable(QString::number(accepted)));
    QVERIFY2(refusedElements > kDocuments / 10, qPrintable(QString::number(refusedElements)));
}

QTEST_APPLESS_MAIN(ConfigAgreementTest)
#include "ConfigAgreementTest.moc"
