#include <QCoreApplication>
#include <QTest>

#include <fcntl.h>

#include <log4cxx/logger.h>

#include "FileRemover.h"
#include "LogCapture.h"
#include "SDCardFileInfo.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "TracedProcess.h"

using Work = QStringList (*)();
Q_DECLARE_METATYPE(Work)

namespace {

const QByteArray kRoot = "/w";

log4cxx::LoggerPtr scanLogger()
{
    return log4cxx::Logger::getLogger("scan");
}

QStringList describeFile()
{
    const SDCardFileInfo info(kRoot + "/file");
    return {};
}

QStringList scanTree()
{
    const CancellationSource runs;
    DirectoryScan scan(scanLogger(), runs.token());
    scan.run(kRoot, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    return {};
}

QStringList scanFile()
{
    const LogCapture log;
    const CancellationSource runs;
    DirectoryScan scan(scanLogger(), runs.token());
    scan.run(kRoot + "/file", DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    return {};
}

QStringList removeFile()
{
    const CancellationSource runs;
    DirectoryScan scan(scanLogger(), runs.token());
    scan.run(kRoot, DirectoryScan::Extent::OneLevel, DirectoryScan::Keep::Files);
    FileRemover(scan).remove(scan.files().at(0));
    return {};
}

} // namespace

/// A look at an automount point mounts what belongs there, unless it is asked not to.
class AutomountTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_status_is_asked_for_without_a_mount_and_without_following_a_link_data();
    void a_status_is_asked_for_without_a_mount_and_without_following_a_link();
};

void AutomountTest::init()
{
    // It looks for its configuration when it is first used, which is not the service's doing.
    log4cxx::Logger::getRootLogger();
    TestDevice::writeFile("/w/file", "content");
    ScannedTree::createDirectory(kRoot + "/sub");
}

void AutomountTest::cleanup()
{
    TestDevice::remove("/w");
}

void AutomountTest::a_status_is_asked_for_without_a_mount_and_without_following_a_link_data()
{
    QTest::addColumn<Work>("work");
    QTest::addColumn<QStringList>("names");
    QTest::newRow("a file's record") << Work(describeFile) << QStringList{"/w/file"};
    QTest::newRow("the entries of a directory") << Work(scanTree) << QStringList{"file", "sub"};
    QTest::newRow("what is no directory") << Work(scanFile) << QStringList{"/w/file"};
    // In the scan, and again before it goes.
    QTest::newRow("a file to be removed") << Work(removeFile) << QStringList{"file", "file"};
}

void AutomountTest::a_status_is_asked_for_without_a_mount_and_without_following_a_link()
{
    QFETCH(const Work, work);
    QStringList names;
    QList<quint64> flags;
    const TracedProcess traced(work, [&](const TracedProcess::Call& call) {
        const QByteArray path = call.statusPath();
        if (!path.isEmpty()) {
            names.append(QString::fromUtf8(path));
            flags.append(call.statusFlags());
        }
    });
    QVERIFY(traced.isFinished());
    names.sort();
    QTEST(names, "names");
    constexpr quint64 kExpected = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    for (const quint64 flag : flags) {
        QCOMPARE(flag, kExpected);
    }
}

TEST_DEVICE_MAIN(AutomountTest)
#include "AutomountTest.moc"
