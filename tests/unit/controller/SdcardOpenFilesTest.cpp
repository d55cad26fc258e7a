#include <QFile>
#include <QTest>

#include <sys/prctl.h>
#include <unistd.h>

#include "ControllerDevice.h"
#include "TestDevice.h"
#include "TestProcess.h"

class SdcardOpenFilesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothing_open_is_told_by_level_data();
    void nothing_open_is_told_by_level();
    void exit_code_1_means_nothing_open_data();
    void exit_code_1_means_nothing_open();
    void any_other_failure_of_lsof_is_reported();
    void a_missing_lsof_is_reported();
    void ids_are_appended_and_anything_else_is_skipped();
    void processes_are_listed_with_their_names();
    void a_list_that_is_not_empty_gets_no_header();
    void open_files_are_listed_with_their_processes();
    void mount_points_are_looked_for_as_latin_1();
    void the_real_lsof_finds_a_process();

private:
    TestBus mBus;
};

namespace {

const QString kInfo = QStringLiteral("INFO sdcard sdcard: ");
const QString kError = QStringLiteral("ERROR sdcard sdcard: ");
const QString kMountPoint = QStringLiteral("/media/sdcard");
using OpenFilesLevel = Sdcard::eLogLevel;

} // namespace

void SdcardOpenFilesTest::nothing_open_is_told_by_level_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QStringList>("records");
    const QStringList number{kInfo + "Number of processes with open files: 0"};
    QTest::newRow("silent") << 0 << QStringList();
    QTest::newRow("processes") << 1 << number;
    QTest::newRow("files") << 2 << number;
}

void SdcardOpenFilesTest::nothing_open_is_told_by_level()
{
    QFETCH(const int, level);
    QFETCH(const QStringList, records);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::takeCalls();
    ToolStandIn::place(ToolStandIn::kLsof, "echo careful >&2; exit 0");
    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, static_cast<OpenFilesLevel>(level)), 0);
    QCOMPARE(ids, QVector<int>());
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"lsof -t -Q /media/sdcard"});
    QCOMPARE(device.effects().take(), records);
}

void SdcardOpenFilesTest::exit_code_1_means_nothing_open_data()
{
    QTest::addColumn<int>("level");
    QTest::newRow("silent") << 0;
    QTest::newRow("processes") << 1;
    QTest::newRow("files") << 2;
}

void SdcardOpenFilesTest::exit_code_1_means_nothing_open()
{
    QFETCH(const int, level);
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, "echo 12; exit 1");
    QVector<int> ids{7};
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, static_cast<OpenFilesLevel>(level)), 0);
    QCOMPARE(ids, QVector<int>{7});
    QCOMPARE(device.effects().errorCount(), level == 0 ? 0U : 1U);
    const QString record = kError + "Cannot get number of processes with open files, 'lsof' "
                                    "utility failed with exit code 1";
    QCOMPARE(device.effects().take(), level == 0 ? QStringList() : QStringList{record});
}

void SdcardOpenFilesTest::any_other_failure_of_lsof_is_reported()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, "echo 12; exit 2");
    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Silent), -1);
    QCOMPARE(ids, QVector<int>());
    QCOMPARE(device.effects().errorCount(), 1U);
    QCOMPARE(device.effects().take(),
             QStringList{kError + "Invoke of 'lsof' utility failed with exit code 2"});
}

void SdcardOpenFilesTest::a_missing_lsof_is_reported()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    TestDevice::remove(ToolStandIn::kLsof);
    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Processes), -1);
    QCOMPARE(device.effects().errorCount(), 2U);
    QCOMPARE(device.effects().take(),
             (QStringList{kError + "Starting command failed (exitstatus:0)",
                          kError + "Invoke of 'lsof' utility failed with exit code -1"}));
}

void SdcardOpenFilesTest::ids_are_appended_and_anything_else_is_skipped()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    // kill(2) would take 0 and negative numbers for whole groups of processes.
    ToolStandIn::place(ToolStandIn::kLsof,
                       R"(printf '12\n\nx13\n14y\n0\n-1\n99999999999\n4000000\n')");
    QVector<int> ids{7};
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Silent), 0);
    QCOMPARE(ids, (QVector<int>{7, 12, 4000000}));
    QCOMPARE(device.effects().take(), QStringList());
}

void SdcardOpenFilesTest::processes_are_listed_with_their_names()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ::prctl(PR_SET_NAME, " my  test ");
    const QByteArray self = QByteArray::number(::getpid());
    ToolStandIn::place(ToolStandIn::kLsof, "echo " + self + "; echo 4194305");
    ToolStandIn::takeCalls();
    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Processes), 0);
    QCOMPARE(ToolStandIn::takeCalls(), QStringList{"lsof -t -Q /media/sdcard"});
    QCOMPARE(device.effects().take(),
             (QStringList{kInfo + "Processes with open files on /media/sdcard:",
                          kInfo + self + ": 'my test'", kInfo + "4194305: ''",
                          kInfo + "Number of processes with open files: 2"}));
}

void SdcardOpenFilesTest::a_list_that_is_not_empty_gets_no_header()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, "echo 4194305");
    QVector<int> ids{7};
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Processes), 0);
    QCOMPARE(
        device.effects().take(),
        (QStringList{kInfo + "4194305: ''", kInfo + "Number of processes with open files: 2"}));
}

void SdcardOpenFilesTest::open_files_are_listed_with_their_processes()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, R"(case $1 in
-t) echo 4194305; echo 4194306;;
-F) printf 'p%s\nfcwd\nn/\nf3\nn/media/sdcard/a b\nn/x/media/sdcard\n' $3
    echo careful >&2
    exit 1;;
esac)");
    ToolStandIn::takeCalls();
    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Files), 0);
    QCOMPARE(ToolStandIn::takeCalls(),
             (QStringList{"lsof -t -Q /media/sdcard", "lsof -F -p 4194305", "lsof -F -p 4194306"}));
    const QStringList files{kInfo + " - open file: /media/sdcard/a b",
                            kInfo + " - open file: /media/sdcard"};
    QCOMPARE(device.effects().take(),
             QStringList{kInfo + "Processes with open files on /media/sdcard:"} +
                 QStringList{kInfo + "4194305: ''"} + files + QStringList{kInfo + "4194306: ''"} +
                 files + QStringList{kInfo + "Number of processes with open files: 2"});
}

void SdcardOpenFilesTest::mount_points_are_looked_for_as_latin_1()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    ToolStandIn::place(ToolStandIn::kLsof, R"(case $1 in
-t) echo 4194305;;
-F) printf 'n/media/k\344rte/1\nn/media/k\303\244rte/2\n';;
esac)");
    QVector<int> ids;
    const QString mountPoint = QString::fromUtf8("/media/k\303\244rte");
    QCOMPARE(controller.checkOpenFiles(mountPoint, ids, OpenFilesLevel::Files), 0);
    const QStringList files = device.effects().take().filter(" - open file: ");
    QCOMPARE(files.size(), 1);
    QVERIFY(files.first().endsWith("rte/1"));
}

void SdcardOpenFilesTest::the_real_lsof_finds_a_process()
{
    ControllerDevice device(mBus);
    Sdcard& controller = device.construct();
    device.effects().take();
    QVERIFY(ControllerDevice::mountCard());
    TestDevice::remove(ToolStandIn::kLsof);
    QVERIFY(QFile::link("/usr/bin/lsof", ToolStandIn::kLsof));

    QVector<int> ids;
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Silent), 0);
    QCOMPARE(ids, QVector<int>());

    TestProcess holder;
    holder.setStandardInputFile(kMountPoint + "/filling");
    holder.start("sleep", {"1000"});
    QVERIFY(holder.waitForStarted());
    const QByteArray id = QByteArray::number(holder.processId());
    QCOMPARE(controller.checkOpenFiles(kMountPoint, ids, OpenFilesLevel::Files), 0);
    holder.kill();
    QVERIFY(holder.waitForFinished());
    QCOMPARE(ids, QVector<int>{id.toInt()});
    QCOMPARE(device.effects().take(),
             (QStringList{kInfo + "Processes with open files on /media/sdcard:",
                          kInfo + id + ": 'sleep'", kInfo + " - open file: /media/sdcard/filling",
                          kInfo + "Number of processes with open files: 1"}));
}

TEST_DEVICE_MAIN(SdcardOpenFilesTest)
#include "SdcardOpenFilesTest.moc"
