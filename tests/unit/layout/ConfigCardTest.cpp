#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include "CardConfig.h"
#include "LogCapture.h"
#include "TestDevice.h"
#include "config.h"

namespace {

constexpr qint64 kMegabyte = 1048576;
constexpr qint64 kCardSize = 8 * kMegabyte;
const QString kMmcDevices = QStringLiteral("/sys/bus/mmc/devices");

qint64 sizeOf(const char* path)
{
    struct stat status = {};
    return ::lstat(path, &status) == 0 ? status.st_size : -1;
}

void makeLink(const char* target, const QString& path)
{
    QCOMPARE(::symlink(target, path.toLocal8Bit().constData()), 0);
}

} // namespace

/// What the configuration reports about the mounted card and its slot.
class ConfigCardTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void size_and_use_of_an_unknown_name_are_0();
    void the_use_of_a_directory_without_a_card_is_0();
    void the_use_of_a_missing_directory_is_reported();
    void the_first_directory_of_a_name_is_used();
    void each_query_of_the_use_reads_the_interval_file();
    void a_card_device_is_a_link_of_the_first_slot_data();
    void a_card_device_is_a_link_of_the_first_slot();
    void there_is_no_card_device_without_the_kernels_directory();
};

void ConfigCardTest::initTestCase()
{
    // The service reads the kernel's device directory; the tests build their own.
    QVERIFY(TestDevice::mountTmpfs("/sys/bus", kMegabyte));
}

void ConfigCardTest::cleanup()
{
    TestDevice::unmountAll(CardConfig::kMountPoint);
    TestDevice::remove(CardConfig::kMountPoint);
    TestDevice::remove(kMmcDevices);
    TestDevice::remove("/etc/scw_interval");
}

void ConfigCardTest::size_and_use_of_an_unknown_name_are_0()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    const ConfigHandler config =
        CardConfig::withChildren("<dir size='50'>logs</dir><symlink target='logs'>link</symlink>");
    for (const char* const id : {"", "Logs", "link", "logs/"}) {
        QCOMPARE(config.getDirSize(id), qint64{0});
    }
    QCOMPARE(config.getDirUsed("link"), qint64{0});
    QCOMPARE(config.getDirUsed("Logs"), qint64{0});
}

void ConfigCardTest::the_use_of_a_directory_without_a_card_is_0()
{
    TestDevice::writeFile("/media/sdcard/logs/a", QByteArray(1000, 'x'));
    const ConfigHandler config = CardConfig::withChildren("<dir size='50'>logs</dir>");
    QCOMPARE(config.getDirUsed("logs"), qint64{0});
    QCOMPARE(config.getDirUsed(""), qint64{0});
}

void ConfigCardTest::the_use_of_a_missing_directory_is_reported()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    const ConfigHandler config = CardConfig::withChildren("<dir size='50'>logs</dir>");
    const LogCapture log;
    QCOMPARE(config.getDirUsed("logs"), qint64{0});
    QCOMPARE(log.messages(LogLevel::Error),
             QStringList{"fstatat() failed for /media/sdcard/logs: No such file or directory"});
    QCOMPARE(log.errorCount(), 1U);
}

void ConfigCardTest::the_first_directory_of_a_name_is_used()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    TestDevice::writeFile("/media/sdcard/a/x/file", QByteArray(1000, 'x'));
    TestDevice::writeFile("/media/sdcard/b/x/file", QByteArray(7, 'x'));
    const ConfigHandler config = CardConfig::withChildren(
        "<dir size='50'>a<dir size='10'>x</dir></dir><dir size='50'>b<dir size='90'>x</dir></dir>");
    QCOMPARE(config.getDirUsed("x"), 1000 + sizeOf("/media/sdcard/a/x"));
    QCOMPARE(config.getDirSize("x"), static_cast<qint64>(kCardSize * 0.05));
}

void ConfigCardTest::each_query_of_the_use_reads_the_interval_file()
{
    QVERIFY(TestDevice::mountTmpfs(CardConfig::kMountPoint, kCardSize));
    QVERIFY(QDir().mkpath("/media/sdcard/logs"));
    TestDevice::writeFile("/etc/scw_interval", "60000\n");
    const ConfigHandler config = CardConfig::withChildren("<dir size='50'>logs</dir>");
    const QString message = "Use special Storage Capacity Watcher interval of 60000 ms";
    const LogCapture log;
    config.getDirUsed("logs");
    config.getDirUsed("logs");
    QCOMPARE(log.messages(LogLevel::Info), (QStringList{message, message}));
}

void ConfigCardTest::a_card_device_is_a_link_of_the_first_slot_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isLink");
    QTest::addColumn<bool>("isCard");
    QTest::newRow("card") << "mmc0:0001" << true << true;
    QTest::newRow("slot alone") << "mmc0" << true << true;
    QTest::newRow("longer name") << "mmc01.5" << true << true;
    QTest::newRow("no link") << "mmc0:0001" << false << false;
    QTest::newRow("other slot") << "mmc1:0001" << true << false;
    QTest::newRow("other case") << "MMC0:0001" << true << false;
    QTest::newRow("later in the name") << "x-mmc0" << true << false;
    QTest::newRow("before the first dot") << ".mmc0" << true << false;
    QTest::newRow("behind a dot") << "a.mmc0" << true << false;
}

void ConfigCardTest::a_card_device_is_a_link_of_the_first_slot()
{
    QFETCH(const QString, name);
    QFETCH(const bool, isLink);
    QVERIFY(QDir().mkpath(kMmcDevices));
    makeLink("../devices/other", kMmcDevices + "/mmc2:0001");
    if (isLink) {
        // A dangling link, as the kernel's may be while a card is removed.
        makeLink("../../../devices/mmc_host/nowhere", kMmcDevices + "/" + name);
    } else {
        QVERIFY(QDir().mkpath(kMmcDevices + "/" + name));
    }
    QTEST(ConfigHandler().hasMmcDevice(), "isCard");
}

void ConfigCardTest::there_is_no_card_device_without_the_kernels_directory()
{
    QVERIFY(!ConfigHandler().hasMmcDevice());
    QVERIFY(QDir().mkpath(kMmcDevices));
    QVERIFY(!ConfigHandler().hasMmcDevice());
}

TEST_DEVICE_MAIN(ConfigCardTest)
#include "ConfigCardTest.moc"
