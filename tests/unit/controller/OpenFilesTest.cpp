#include "OpenFiles.h"

#include <QTest>

#include <sys/prctl.h>
#include <unistd.h>

#include <tavoutil/TrackObject.h>

#include "LogCapture.h"
#include "TestDevice.h"
#include "ToolStandIn.h"

class OpenFilesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        ToolStandIn::place(ToolStandIn::kLsof, "exit 0");
        ToolStandIn::takeCalls();
    }

    void lsof_reports_the_processes_with_open_files_data()
    {
        QTest::addColumn<QByteArray>("lsof");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QList<QByteArray>>("processIds");
        const QList<QByteArray> before{"7"};
        QTest::newRow("nothing") << QByteArray("echo careful >&2") << 0 << before;
        QTest::newRow("processes")
            << QByteArray("echo 12; echo 4000000") << 0 << QList<QByteArray>{"7", "12", "4000000"};
        // kill(2) treats 0 and negative numbers as process groups.
        QTest::newRow("no ids") << QByteArray(R"(printf '\nx13\n14y\n0\n-1\n99999999999\n')") << 0
                                << before;
        QTest::newRow("exit code 1") << QByteArray("echo 12; exit 1") << 1 << before;
        QTest::newRow("exit code 2") << QByteArray("echo 12; exit 2") << 2 << before;
        QTest::newRow("crash") << QByteArray("echo 12; kill -9 $$") << -1 << before;
    }

    void lsof_reports_the_processes_with_open_files()
    {
        QFETCH(const QByteArray, lsof);
        ToolStandIn::place(ToolStandIn::kLsof, lsof);
        QList<QByteArray> processIds{"7"};
        QTEST(mOpenFiles.findProcesses("/media/sdcard", processIds), "exitCode");
        QTEST(processIds, "processIds");
        QCOMPARE(ToolStandIn::takeCalls(), QStringList{"lsof -t -Q /media/sdcard"});
    }

    void a_missing_lsof_is_reported()
    {
        TestDevice::remove(ToolStandIn::kLsof);
        const LogCapture log;
        QList<QByteArray> processIds;
        QCOMPARE(mOpenFiles.findProcesses("/media/sdcard", processIds), -1);
        QCOMPARE(log.messages(LogLevel::Error),
                 QStringList{"Starting command failed (exitstatus:0)"});
    }

    void the_files_of_a_process_begin_with_the_mount_point()
    {
        ToolStandIn::place(ToolStandIn::kLsof, R"(echo careful >&2
printf 'p12\nfcwd\nn/\nf3\nn/media/k\344rte/a b\nn/x/media/k\344rte\nn/media/k\303\244rte/c\n'
exit 1)");
        const QString mountPoint = QString::fromUtf8("/media/k\303\244rte");
        QCOMPARE(mOpenFiles.filesOf("12", mountPoint),
                 (QList<QByteArray>{"/media/k\344rte/a b", "/media/k\344rte"}));
        QCOMPARE(ToolStandIn::takeCalls(), QStringList{"lsof -F -p 12"});
    }

    void a_process_is_named_by_its_command()
    {
        ::prctl(PR_SET_NAME, " my  test ");
        QCOMPARE(OpenFiles::commandName(QByteArray::number(::getpid())), QByteArray("my test"));
        // Larger than any id that the kernel gives.
        QCOMPARE(OpenFiles::commandName("4194305"), QByteArray());
    }

private:
    class Track : public TrackObject
    {
    public:
        Track() { initTrack("sdcard"); }
    };
    Track mTrack;
    OpenFiles mOpenFiles{this, mTrack};
};

TEST_DEVICE_MAIN(OpenFilesTest)
#include "OpenFilesTest.moc"
