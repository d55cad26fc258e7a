#include <memory>

#include <QCoreApplication>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTest>
#include <QTextCodec>

#include "CardConfig.h"
#include "LogCapture.h"
#include "TestDevice.h"
#include "config.h"

namespace {

const QString kSetup = QStringLiteral("bool ConfigHandler::setup()");
const QString kReport =
    QStringLiteral("void ConfigHandler::reportParseError(const QByteArray&) const");

LogRecord record(LogLevel level, const QString& function, const QString& message)
{
    return {level, "config", "config", function, message};
}

QStringList pathsOf(const ConfigHandler& config)
{
    QStringList paths;
    for (const DirInfo& dir : config.dirs()) {
        paths.append(dir.path);
    }
    for (const SymlinkInfo& symlink : config.symlinks()) {
        paths.append(symlink.path);
    }
    return paths;
}

} // namespace

class ConfigHandlerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();
    void a_new_handler_knows_the_default_card_and_no_layout();
    void a_root_without_children_is_an_empty_layout();
    void the_root_names_the_mount_point_and_the_device_in_utf8();
    void empty_paths_replace_the_default_ones();
    void another_file_can_be_read();
    void a_file_name_beyond_ascii_is_readable_in_a_parsing_error();
    void directories_and_links_are_in_document_order();
    void elements_inside_of_a_link_are_ignored();
    void all_attributes_of_a_directory_are_kept();
    void only_the_word_true_switches_watching_on_data();
    void only_the_word_true_switches_watching_on();
    void shares_are_percents_of_the_parents_share_data();
    void shares_are_percents_of_the_parents_share();
    void shares_of_nested_directories_multiply();
    void names_are_used_as_given_data();
    void names_are_used_as_given();
    void names_are_read_as_latin1();
    void link_targets_are_kept_and_resolved_data();
    void link_targets_are_kept_and_resolved();
    void a_path_is_found_by_name_among_directories_before_links();
    void a_wrong_node_ends_the_reading_data();
    void a_wrong_node_ends_the_reading();
    void a_file_that_cannot_be_parsed_is_reported_data();
    void a_file_that_cannot_be_parsed_is_reported();
    void what_was_read_before_an_error_is_kept();
    void errors_count_even_if_their_level_is_off();
    void reading_again_replaces_the_layout();
};

void ConfigHandlerTest::cleanup()
{
    TestDevice::remove(CardConfig::kFile);
}

void ConfigHandlerTest::a_new_handler_knows_the_default_card_and_no_layout()
{
    const ConfigHandler config;
    QCOMPARE(config.mountPoint(), QString("/media/sdcard"));
    QCOMPARE(config.devicePath(), QString("/dev/mmcblk0p1"));
    QVERIFY(config.dirs().isEmpty());
    QVERIFY(config.symlinks().isEmpty());
    QVERIFY(config.dirEntries().isEmpty());
    QVERIFY(config.symlinkEntries().isEmpty());
}

void ConfigHandlerTest::a_root_without_children_is_an_empty_layout()
{
    CardConfig::write("<sdcard/>");
    const LogCapture log;
    ConfigHandler config;
    QVERIFY(config.setup());
    QVERIFY(config.dirs().isEmpty());
    QVERIFY(config.symlinks().isEmpty());
    QCOMPARE(config.mountPoint(), QString("/media/sdcard"));
    QCOMPARE(config.devicePath(), QString("/dev/mmcblk0p1"));
    QCOMPARE(log.records(), QVector<LogRecord>{record(LogLevel::Info, kSetup,
                                                      "Configuration successfully parsed")});
    QCOMPARE(log.errorCount(), 0U);
}

void ConfigHandlerTest::the_root_names_the_mount_point_and_the_device_in_utf8()
{
    CardConfig::write("<sdcard mountpoint='/m/k\xc3\xa4rtchen' devicepath='/dev/\xe2\x82\xac'/>");
    ConfigHandler config;
    QVERIFY(config.setup());
    QCOMPARE(config.mountPoint(), QString::fromUtf8("/m/k\xc3\xa4rtchen"));
    QCOMPARE(config.devicePath(), QString::fromUtf8("/dev/\xe2\x82\xac"));
}

void ConfigHandlerTest::empty_paths_replace_the_default_ones()
{
    CardConfig::write("<sdcard mountpoint='' devicepath=''><dir size='1'>empty</dir></sdcard>");
    ConfigHandler config;
    QVERIFY(config.setup());
    QCOMPARE(config.mountPoint(), QString(""));
    QCOMPARE(config.devicePath(), QString(""));
    // No card is mounted, and the root directory does not count as one.
    QVERIFY(!config.applyConfigLayout());
    QVERIFY(!QFileInfo::exists("/empty"));
}

void ConfigHandlerTest::another_file_can_be_read()
{
    const QString other = QStringLiteral("/etc/tavo/other.xml");
    TestDevice::writeFile(other, "<sdcard mountpoint='/other'/>");
    ConfigHandler config;
    config.setConfigFile(other);
    QVERIFY(config.setup());
    QCOMPARE(config.mountPoint(), QString("/other"));
}

void ConfigHandlerTest::a_file_name_beyond_ascii_is_readable_in_a_parsing_error()
{
    const QString other = QString::fromUtf8("/etc/tavo/gr\xc3\xb6\xc3\x9f"
                                            "e.xml");
    TestDevice::writeFile(other, "<sdcard><file/></sdcard>");
    // The test's own environment may have another encoding.
    QTextCodec* const before = QTextCodec::codecForLocale();
    const auto restore = qScopeGuard([before] { QTextCodec::setCodecForLocale(before); });
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    ConfigHandler config;
    config.setConfigFile(other);
    const LogCapture log;
    QVERIFY(!config.setup());
    QCOMPARE(log.messages(),
             (QStringList{"Parsing errror: Unsupported node 'file' found in file '" + other + "'",
                          "Could not parse child nodes in file '" + other + "'"}));
}

void ConfigHandlerTest::directories_and_links_are_in_document_order()
{
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='50'>logs<dir size='10'>old<symlink target='x'>deep"
                                 "</symlink></dir><symlink target='old'>current</symlink></dir>"
                                 "<symlink target='logs'>top</symlink><dir size='5'>csv</dir>");
    QCOMPARE(config.dirEntries(), (QStringList{"logs=/logs", "old=/logs/old", "csv=/csv"}));
    QCOMPARE(config.symlinkEntries(),
             (QStringList{"deep=/logs/old/deep", "current=/logs/current", "top=/top"}));
    QCOMPARE(pathsOf(config), (QStringList{"/logs", "/logs/old", "/csv", "/logs/old/deep",
                                           "/logs/current", "/top"}));
}

void ConfigHandlerTest::elements_inside_of_a_link_are_ignored()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<symlink target='t'>link<dir size='1'>a</dir><symlink target='u'>b</symlink><file/>"
        "</symlink><dir size='1'>after</dir>");
    QCOMPARE(pathsOf(config), (QStringList{"/after", "/link"}));
}

void ConfigHandlerTest::all_attributes_of_a_directory_are_kept()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='50' capacitywatch='true' mode='0750' owner='daemon:mail'>logs</dir>"
        "<dir size='1'>plain</dir>");
    const DirInfo& logs = config.dirs().at(0);
    QCOMPARE(logs.name, QString("logs"));
    QCOMPARE(logs.size, 0.5);
    QVERIFY(logs.capacitywatch);
    QCOMPARE(logs.mode, std::string("0750"));
    QCOMPARE(logs.owner, std::string("daemon:mail"));
    const DirInfo& plain = config.dirs().at(1);
    QVERIFY(!plain.capacitywatch);
    QCOMPARE(plain.mode, std::string());
    QCOMPARE(plain.owner, std::string());
}

void ConfigHandlerTest::only_the_word_true_switches_watching_on_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("isWatched");
    QTest::newRow("true") << QByteArray("true") << true;
    QTest::newRow("upper case") << QByteArray("TRUE") << false;
    QTest::newRow("capital") << QByteArray("True") << false;
    QTest::newRow("number") << QByteArray("1") << false;
    QTest::newRow("yes") << QByteArray("yes") << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("white space") << QByteArray(" true") << false;
    QTest::newRow("longer") << QByteArray("true.") << false;
}

void ConfigHandlerTest::only_the_word_true_switches_watching_on()
{
    QFETCH(const QByteArray, value);
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='1' capacitywatch='" + value + "'>d</dir>");
    QTEST(config.dirs().at(0).capacitywatch, "isWatched");
}

void ConfigHandlerTest::shares_are_percents_of_the_parents_share_data()
{
    QTest::addColumn<QByteArray>("size");
    QTest::addColumn<qreal>("share");
    QTest::newRow("all") << QByteArray("100") << 1.0;
    QTest::newRow("half") << QByteArray("50") << 0.5;
    QTest::newRow("decimals") << QByteArray("12.5") << 0.125;
    QTest::newRow("exponent") << QByteArray("5e1") << 0.5;
    QTest::newRow("nothing") << QByteArray("0") << 0.0;
    QTest::newRow("more than there is") << QByteArray("250") << 2.5;
    QTest::newRow("negative") << QByteArray("-50") << -0.5;
}

void ConfigHandlerTest::shares_are_percents_of_the_parents_share()
{
    QFETCH(const QByteArray, size);
    const ConfigHandler config = CardConfig::withChildren("<dir size='" + size + "'>d</dir>");
    QTEST(config.dirs().at(0).size, "share");
}

void ConfigHandlerTest::shares_of_nested_directories_multiply()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='50'>a<dir size='20'>b<dir size='25'>c</dir></dir><dir size='100'>d</dir></dir>"
        "<dir size='90'>e</dir>");
    QCOMPARE(config.dirs().at(0).size, 0.5);
    QCOMPARE(config.dirs().at(1).size, 0.1);
    QCOMPARE(config.dirs().at(2).size, 0.025);
    QCOMPARE(config.dirs().at(3).size, 0.5);
    QCOMPARE(config.dirs().at(4).size, 0.9);
}

void ConfigHandlerTest::names_are_used_as_given_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("name");
    QTest::newRow("indented") << QByteArray("\n    logs\n  ") << "logs";
    QTest::newRow("space within") << QByteArray("my logs") << "my logs";
    QTest::newRow("slash") << QByteArray("a/b") << "a/b";
    QTest::newRow("parent") << QByteArray("..") << "..";
    QTest::newRow("leading slash") << QByteArray("/abs") << "/abs";
}

void ConfigHandlerTest::names_are_used_as_given()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QString, name);
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1'>" + text + "<symlink target='t'>" + text + "</symlink></dir>");
    QCOMPARE(config.dirs().at(0).name, name);
    QCOMPARE(config.dirs().at(0).path, "/" + name);
    QCOMPARE(config.symlinks().at(0).name, name);
    QCOMPARE(config.symlinks().at(0).path, "/" + name + "/" + name);
}

void ConfigHandlerTest::names_are_read_as_latin1()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='1'>k\xc3\xa4</dir><symlink target='k\xc3\xa4'>k\xc3\xa4</symlink>");
    const QString expected = QString::fromLatin1("k\xc3\xa4");
    QCOMPARE(config.dirs().at(0).name, expected);
    QCOMPARE(config.symlinks().at(0).name, expected);
    QCOMPARE(config.symlinks().at(0).target, expected);
}

void ConfigHandlerTest::link_targets_are_kept_and_resolved_data()
{
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QString>("absoluteTarget");
    QTest::newRow("sibling") << QByteArray("new") << "/logs/new";
    QTest::newRow("above") << QByteArray("../csv") << "/csv";
    QTest::newRow("absolute") << QByteArray("/var/log") << "/var/log";
    QTest::newRow("absolute and not clean") << QByteArray("/var//log/../x") << "/var//log/../x";
}

void ConfigHandlerTest::link_targets_are_kept_and_resolved()
{
    QFETCH(const QByteArray, target);
    const ConfigHandler config = CardConfig::withChildren("<dir size='1'>logs<symlink target='" +
                                                          target + "'>current</symlink></dir>");
    const SymlinkInfo& symlink = config.symlinks().at(0);
    QCOMPARE(symlink.path, QString("/logs/current"));
    QCOMPARE(symlink.target, QString(target));
    QTEST(symlink.absoluteTarget, "absoluteTarget");
}

void ConfigHandlerTest::a_path_is_found_by_name_among_directories_before_links()
{
    const ConfigHandler config = CardConfig::withChildren(
        "<symlink target='x'>both</symlink><symlink target='x'>link</symlink>"
        "<dir size='1'>a<dir size='1'>both</dir></dir><dir size='1'>b<dir size='1'>both</dir></dir>"
        "<dir size='1'>c<symlink target='y'>link</symlink></dir>");
    QCOMPARE(config.getDirPath("both"), QString("/a/both"));
    QCOMPARE(config.getDirPath("link"), QString("/link"));
    QCOMPARE(config.getDirPath("Both"), QString());
    QCOMPARE(config.getDirPath("missing"), QString());
    QCOMPARE(config.getDirPath(""), QString());
}

void ConfigHandlerTest::a_wrong_node_ends_the_reading_data()
{
    QTest::addColumn<QByteArray>("children");
    QTest::addColumn<QString>("message");
    QTest::newRow("directory without text")
        << QByteArray("<dir size='1'/>") << "Content of node 'dir' not definied";
    QTest::newRow("directory with white space for a text")
        << QByteArray("<dir size='1'>\n <dir size='1'>a</dir> </dir>")
        << "Content of node 'dir' not definied";
    QTest::newRow("directory without text and size")
        << QByteArray("<dir/>") << "Content of node 'dir' not definied";
    QTest::newRow("directory without size")
        << QByteArray("<dir>a</dir>") << "Attribute 'size' of node 'dir' not found";
    for (const char* const size : {"", "x", "10%", "1,5", "10 percent", "0x10", "1e309"}) {
        QTest::addRow("size '%s'", size) << "<dir size='" + QByteArray(size) + "'>a</dir>"
                                         << "Attribute 'size' of node 'dir' with format error";
    }
    QTest::newRow("link without text")
        << QByteArray("<symlink target='t'/>") << "Content of node 'symlink' not definied";
    QTest::newRow("link without text and target")
        << QByteArray("<symlink/>") << "Content of node 'symlink' not definied";
    QTest::newRow("link without target")
        << QByteArray("<symlink>a</symlink>") << "Attribute 'target' of node 'symlink' not found";
    QTest::newRow("other element")
        << QByteArray("<file>a</file>") << "Unsupported node 'file' found";
    QTest::newRow("other case") << QByteArray("<Dir size='1'>a</Dir>")
                                << "Unsupported node 'Dir' found";
    QTest::newRow("other element in a directory")
        << QByteArray("<dir size='1'>a<dir size='1'>b<sdcard/></dir></dir>")
        << "Unsupported node 'sdcard' found";
}

void ConfigHandlerTest::a_wrong_node_ends_the_reading()
{
    QFETCH(const QByteArray, children);
    QFETCH(const QString, message);
    CardConfig::write("<sdcard>" + children + "<dir size='1'>after</dir></sdcard>");
    const LogCapture log;
    ConfigHandler config;
    QVERIFY(!config.setup());
    const QVector<LogRecord> expected{
        record(LogLevel::Error, kReport,
               "Parsing errror: " + message + " in file '/etc/tavo/tavo-sdcard.config.xml'"),
        record(LogLevel::Error, kSetup,
               "Could not parse child nodes in file '/etc/tavo/tavo-sdcard.config.xml'")};
    QCOMPARE(log.records(), expected);
    QCOMPARE(log.errorCount(), 2U);
    QVERIFY(!pathsOf(config).contains("/after"));
}

void ConfigHandlerTest::a_file_that_cannot_be_parsed_is_reported_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("why");
    QTest::newRow("empty") << QByteArray() << "Premature end of document at line 1, column 1";
    QTest::newRow("unclosed") << QByteArray("<sdcard>\n <dir>")
                              << "Premature end of document at line 2, column 6";
    QTest::newRow("other root") << QByteArray("<card/>")
                                << "root element 'card' instead of 'sdcard' at line 1, column 1";
}

void ConfigHandlerTest::a_file_that_cannot_be_parsed_is_reported()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, why);
    CardConfig::write(content);
    const LogCapture log;
    QVERIFY(!ConfigHandler().setup());
    QCOMPARE(log.records(), QVector<LogRecord>{record(
                                LogLevel::Error, kSetup,
                                "Could not parse file : /etc/tavo/tavo-sdcard.config.xml " + why)});
    QCOMPARE(log.errorCount(), 1U);
}

void ConfigHandlerTest::what_was_read_before_an_error_is_kept()
{
    CardConfig::write("<sdcard mountpoint='/m'><dir size='1'>a<symlink target='t'>b</symlink></dir>"
                      "<dir size='x'>c</dir></sdcard>");
    ConfigHandler config;
    QVERIFY(!config.setup());
    QCOMPARE(config.mountPoint(), QString("/m"));
    QCOMPARE(pathsOf(config), (QStringList{"/a", "/a/b"}));
    QCOMPARE(config.dirEntries(), QStringList());
    QCOMPARE(config.symlinkEntries(), QStringList());
}

void ConfigHandlerTest::errors_count_even_if_their_level_is_off()
{
    CardConfig::write("<sdcard><dir/></sdcard>");
    const LogCapture log(LogLevel::Off);
    QVERIFY(!ConfigHandler().setup());
    QCOMPARE(log.errorCount(), 2U);
    QCOMPARE(log.messages(), QStringList());
}

void ConfigHandlerTest::reading_again_replaces_the_layout()
{
    ConfigHandler config =
        CardConfig::withChildren("<dir size='1'>old</dir><symlink target='t'>link</symlink>");
    CardConfig::write("<sdcard><dir size='1'>new</dir></sdcard>");
    QVERIFY(config.setup());
    QCOMPARE(pathsOf(config), QStringList{"/new"});
    QCOMPARE(config.dirEntries(), QStringList{"new=/new"});
    QCOMPARE(config.symlinkEntries(), QStringList());
}

TEST_DEVICE_MAIN(ConfigHandlerTest)
#include "ConfigHandlerTest.moc"
