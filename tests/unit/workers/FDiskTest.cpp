#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <log4cxx/logger.h>

#include "LogCapture.h"
#include "TestDevice.h"
#include "fdisk.h"

namespace {

bool isTypeHidden = false;

const QString kDisk = QStringLiteral("/card/mmcblk0");
const std::string kPartition = "/card/mmcblk0p1";
constexpr qint64 kDiskSize = qint64{32} * 1024 * 1024;
constexpr qint64 kSysfsSize = 1048576;

// Start values above 0 show that the counters are only ever raised.
constexpr int kLinuxBefore = 10;
constexpr int kOtherBefore = 20;

struct Count
{
    int result;
    int linuxPartitions;
    int otherPartitions;
};

Count countPartitions(const std::string& partition = kPartition)
{
    int linuxPartitions = kLinuxBefore;
    int otherPartitions = kOtherBefore;
    const int result = FDisk::getNumberOfPartitions(log4cxx::Logger::getLogger("St:Mounting"),
                                                    partition, linuxPartitions, otherPartitions);
    return {result, linuxPartitions - kLinuxBefore, otherPartitions - kOtherBefore};
}

void writeDisk(const QByteArray& table)
{
    TestDevice::writeFile(kDisk, {});
    QVERIFY(QFile::resize(kDisk, kDiskSize));
    if (table.isEmpty()) {
        return;
    }
    QProcess sfdisk;
    sfdisk.start("/usr/sbin/sfdisk", {"--quiet", "--no-reread", "--no-tell-kernel", kDisk});
    sfdisk.write(table);
    sfdisk.closeWriteChannel();
    QVERIFY(sfdisk.waitForFinished());
    QVERIFY2(sfdisk.exitCode() == 0, sfdisk.readAllStandardError().constData());
}

int openDescriptors()
{
    return QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System).size();
}

} // namespace

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

void* __real_fdisk_partition_get_type(void* partition);

void* __wrap_fdisk_partition_get_type(void* partition)
{
    return isTypeHidden ? nullptr : __real_fdisk_partition_get_type(partition);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

class FDiskTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void the_disk_is_found_through_the_kernels_directory_data();
    void the_disk_is_found_through_the_kernels_directory();
    void long_paths_do_no_harm_data();
    void long_paths_do_no_harm();
    void partitions_are_counted_by_their_type_data();
    void partitions_are_counted_by_their_type();
    void a_partition_without_a_type_is_not_counted();
    void failures_are_reported_data();
    void failures_are_reported();
    void no_descriptor_stays_open();
};

void FDiskTest::initTestCase()
{
    QVERIFY(TestDevice::mountTmpfs("/sys/class/block", kSysfsSize));
    QVERIFY(QDir().mkpath("/sys/class/block/mmcblk0/mmcblk0p1"));
    QVERIFY(QDir().mkpath("/sys/class/block/deep/" + QString(100, 'd') + "/sda/sda7"));
    QVERIFY(QFile::link("mmcblk0/mmcblk0p1", "/sys/class/block/mmcblk0p1"));
    QVERIFY(QFile::link("deep/" + QString(100, 'd') + "/sda/sda7", "/sys/class/block/sda7"));
    QVERIFY(QFile::link("nowhere", "/sys/class/block/dangling"));
}

void FDiskTest::cleanup()
{
    TestDevice::remove("/card");
}

void FDiskTest::the_disk_is_found_through_the_kernels_directory_data()
{
    QTest::addColumn<QByteArray>("partition");
    QTest::addColumn<QByteArray>("disk");
    QTest::newRow("card") << QByteArray("/dev/mmcblk0p1") << QByteArray("/dev/mmcblk0");
    QTest::newRow("other directory")
        << QByteArray("/card/a/mmcblk0p1") << QByteArray("/card/a/mmcblk0");
    QTest::newRow("root directory") << QByteArray("/sda7") << QByteArray("/sda");
    QTest::newRow("relative") << QByteArray("dev/sda7") << QByteArray("dev/sda");
    QTest::newRow("disk far away") << QByteArray("/dev/sda7") << QByteArray("/dev/sda");
    QTest::newRow("no name") << QByteArray("/dev/") << QByteArray("/dev/class");
    QTest::newRow("no directory") << QByteArray("mmcblk0p1") << QByteArray();
    QTest::newRow("empty") << QByteArray() << QByteArray();
    QTest::newRow("unknown") << QByteArray("/dev/mmcblk0p2") << QByteArray();
    QTest::newRow("dangling") << QByteArray("/dev/dangling") << QByteArray();
}

void FDiskTest::the_disk_is_found_through_the_kernels_directory()
{
    QFETCH(const QByteArray, partition);
    QTEST(QByteArray::fromStdString(FDisk::getDiskDevicePath(partition.toStdString())), "disk");
}

void FDiskTest::long_paths_do_no_harm_data()
{
    QTest::addColumn<QByteArray>("partition");
    for (const int length : {200, 238, 239, 240, 250, 251, 252, 255, 256, 5000}) {
        QTest::addRow("name of %d", length) << "/" + QByteArray(length, 'x');
        QTest::addRow("directory of %d", length)
            << "/" + QByteArray(length, 'x') + "/no_such_partition";
        QTest::addRow("dots of %d", length) << "/" + QByteArray("../").repeated(length / 3);
    }
}

void FDiskTest::long_paths_do_no_harm()
{
    QFETCH(const QByteArray, partition);
    const LogCapture log;
    QCOMPARE(countPartitions(partition.toStdString()).result, -1);
    QCOMPARE(log.errorCount(), 1U);
}

void FDiskTest::partitions_are_counted_by_their_type_data()
{
    QTest::addColumn<QByteArray>("table");
    QTest::addColumn<int>("linuxPartitions");
    QTest::addColumn<int>("otherPartitions");
    QTest::newRow("empty table") << QByteArray("label: dos\n") << 0 << 0;
    QTest::newRow("Linux") << QByteArray("label: dos\n,,83\n") << 1 << 0;
    QTest::newRow("FAT") << QByteArray("label: dos\n,,c\n") << 0 << 1;
    QTest::newRow("swap") << QByteArray("label: dos\n,,82\n") << 0 << 1;
    QTest::newRow("FAT and Linux") << QByteArray("label: dos\n,8M,c\n,8M,83\n") << 1 << 1;
    QTest::newRow("two of Linux") << QByteArray("label: dos\n,8M,83\n,8M,83\n") << 2 << 0;
    QTest::newRow("four") << QByteArray("label: dos\n,4M,83\n,4M,7\n,4M,83\n,4M,83\n") << 3 << 1;
    QTest::newRow("extended with one logical")
        << QByteArray("label: dos\n,4M,83\n,,5\n,4M,83\n") << 2 << 1;
    QTest::newRow("gap in the table")
        << QByteArray("label: dos\n/card/mmcblk0p3 : size=4M, type=83\n") << 1 << 0;
    QTest::newRow("GPT") << QByteArray("label: gpt\n,,L\n") << 0 << 1;
    QTest::newRow("empty GPT") << QByteArray("label: gpt\n") << 0 << 0;
}

void FDiskTest::partitions_are_counted_by_their_type()
{
    QFETCH(const QByteArray, table);
    writeDisk(table);
    const LogCapture log;
    const Count count = countPartitions();
    QCOMPARE(count.result, 0);
    QTEST(count.linuxPartitions, "linuxPartitions");
    QTEST(count.otherPartitions, "otherPartitions");
    QCOMPARE(log.messages(), QStringList());
}

void FDiskTest::a_partition_without_a_type_is_not_counted()
{
    writeDisk("label: dos\n,8M,c\n,8M,83\n");
    isTypeHidden = true;
    const Count count = countPartitions();
    isTypeHidden = false;
    QCOMPARE(count.result, 0);
    QCOMPARE(count.linuxPartitions, 0);
    QCOMPARE(count.otherPartitions, 0);
}

void FDiskTest::failures_are_reported_data()
{
    QTest::addColumn<QByteArray>("partition");
    QTest::addColumn<QByteArray>("disk");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("record");
    const QByteArray partition = QByteArray::fromStdString(kPartition);
    const QString noPath = "Unable to get device path '";
    const QString noTable = "Failed to read partition table of device '/card/mmcblk0'";
    QTest::newRow("no slash") << QByteArray("mmcblk0p1") << QByteArray() << -1
                              << noPath + "mmcblk0p1'";
    QTest::newRow("unknown name") << QByteArray("/card/mmcblk9p1") << QByteArray() << -1
                                  << noPath + "/card/mmcblk9p1'";
    QTest::newRow("empty") << QByteArray() << QByteArray() << -1 << noPath + "'";
    QTest::newRow("no disk") << partition << QByteArray() << -1 << "Unable to open '/card/mmcblk0'";
    QTest::newRow("blank disk") << partition << QByteArray(4096, '\0') << -2 << noTable;
    QTest::newRow("noise") << partition << QByteArray(4096, '\xa5') << -2 << noTable;
}

void FDiskTest::failures_are_reported()
{
    QFETCH(const QByteArray, partition);
    QFETCH(const QByteArray, disk);
    QFETCH(const QString, record);
    if (!disk.isEmpty()) {
        TestDevice::writeFile(kDisk, disk);
        QVERIFY(QFile::resize(kDisk, kDiskSize));
    }
    for (const LogLevel level : {LogLevel::Debug, LogLevel::Off}) {
        const LogCapture log(level);
        const Count count = countPartitions(partition.toStdString());
        QTEST(count.result, "result");
        QCOMPARE(count.linuxPartitions, 0);
        QCOMPARE(count.otherPartitions, 0);
        QCOMPARE(log.errorCount(), 1U);
        if (level == LogLevel::Debug) {
            QCOMPARE(log.messages(LogLevel::Error), QStringList{"FDisk: " + record});
            QCOMPARE(log.records().at(0).channel, QString("St:Mounting"));
            QCOMPARE(log.records().at(0).source, QString("fdisk"));
            QVERIFY(log.records().at(0).function.startsWith(
                "static int FDisk::getNumberOfPartitions("));
        }
    }
}

void FDiskTest::no_descriptor_stays_open()
{
    const LogCapture log;
    const int before = openDescriptors();
    countPartitions();
    writeDisk({});
    countPartitions();
    writeDisk("label: dos\n,,83\n");
    countPartitions();
    QCOMPARE(openDescriptors(), before);
}

TEST_DEVICE_MAIN(FDiskTest)
#include "FDiskTest.moc"
