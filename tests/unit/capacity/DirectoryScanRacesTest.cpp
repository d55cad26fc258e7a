#include <functional>

#include <QCoreApplication>
#include <QTest>

#include <cstdio>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "DirectoryScan.h"
#include "LogCapture.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "TracedProcess.h"
#include "WatchedCard.h"

using ScannedTree::createDirectory;
using ScannedTree::createFile;
using ScannedTree::sizeOf;

using Change = std::function<void()>;
Q_DECLARE_METATYPE(Change)

namespace {

const QByteArray kRoot = WatchedCard::kDirectory;
const QByteArray kDir = kRoot + "/d";
const QByteArray kFile = kRoot + "/file";
const QByteArray kOutside = "/media/sdcard/outside";

constexpr qint64 kDirSize = 5'000;
constexpr qint64 kFileSize = 100;

/// Bytes that the scan found, followed by the messages.
QStringList scan()
{
    const LogCapture log;
    const CancellationSource runs;
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), runs.token());
    scan.run(kRoot, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    return QStringList{QString::number(scan.totalSize())} + log.messages(LogLevel::Error);
}

/// Scans, and makes a change right before the file is asked for its status.
TracedProcess scanAndChangeFile(const Change& change)
{
    return TracedProcess(scan, [&change](const TracedProcess::Call& call) {
        if (call.statusPath() == "file") {
            change();
        }
    });
}

void moveAway(const QByteArray& path)
{
    QCOMPARE(std::rename(path.constData(), "/media/sdcard/away"), 0);
}

} // namespace

/// Cards that change while they are scanned.
class DirectoryScanRacesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void a_directory_that_is_no_longer_what_was_seen_is_reported_data();
    void a_directory_that_is_no_longer_what_was_seen_is_reported();
    void a_file_that_vanishes_is_reported();
    void an_entry_counts_as_what_it_is_when_it_is_asked_data();
    void an_entry_counts_as_what_it_is_when_it_is_asked();
    void each_entry_is_asked_for_its_status_once();
};

void DirectoryScanRacesTest::initTestCase()
{
    // It looks for its configuration when it is first used, which is not the service's doing.
    log4cxx::Logger::getRootLogger();
}

void DirectoryScanRacesTest::init()
{
    QVERIFY(WatchedCard::insert());
    createDirectory(kDir);
    createFile(kDir + "/x", kDirSize);
    createFile(kFile, kFileSize);
    createDirectory(kOutside);
    createFile(kOutside + "/x", 700'000);
}

void DirectoryScanRacesTest::cleanup()
{
    TestDevice::unmountAll(kDir);
    WatchedCard::remove();
}

void DirectoryScanRacesTest::a_directory_that_is_no_longer_what_was_seen_is_reported_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<QString>("message");
    const QString failed = "fstatat() failed for /media/sdcard/w/d: ";
    const QString noDirectory = "It is not a directory: /media/sdcard/w/d";
    QTest::newRow("gone") << Change([] { moveAway(kDir); }) << failed + "No such file or directory";
    QTest::newRow("link to another") << Change([] {
        moveAway(kDir);
        QCOMPARE(::symlink(kOutside.constData(), kDir.constData()), 0);
    }) << noDirectory;
    QTest::newRow("file") << Change([] {
        moveAway(kDir);
        createFile(kDir, 700'000);
    }) << noDirectory;
    QTest::newRow("another directory") << Change([] {
        moveAway(kDir);
        QCOMPARE(std::rename(kOutside.constData(), kDir.constData()), 0);
    }) << failed + "Stale file handle";
    QTest::newRow("another file system") << Change([] {
        QVERIFY(TestDevice::mountTmpfs(kDir, 1048576));
        createFile(kDir + "/x", 700'000);
    }) << failed + "Stale file handle";
}

void DirectoryScanRacesTest::a_directory_that_is_no_longer_what_was_seen_is_reported()
{
    QFETCH(const Change, change);
    QFETCH(const QString, message);
    const qint64 rest = sizeOf(kRoot) + kFileSize;
    const TracedProcess traced(scan, [&change](const TracedProcess::Call& call) {
        if (call.number == SYS_openat && call.text(1) == kDir) {
            change();
        }
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(traced.output(), (QStringList{QString::number(rest), message}));
}

void DirectoryScanRacesTest::a_file_that_vanishes_is_reported()
{
    const qint64 rest = sizeOf(kRoot) + sizeOf(kDir) + kDirSize;
    const TracedProcess traced = scanAndChangeFile([] { QCOMPARE(::unlink(kFile), 0); });
    QVERIFY(traced.isFinished());
    QCOMPARE(traced.output(),
             (QStringList{
                 QString::number(rest),
                 "fstatat() failed for /media/sdcard/w/file: No such file or directory",
             }));
}

void DirectoryScanRacesTest::an_entry_counts_as_what_it_is_when_it_is_asked_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<qint64>("size");
    QTest::newRow("grown") << Change([] { QCOMPARE(::truncate(kFile, 4'000), 0); })
                           << qint64{4'000};
    QTest::newRow("link") << Change([] {
        QCOMPARE(::unlink(kFile), 0);
        QCOMPARE(::symlink("d/x", kFile), 0);
    }) << qint64{3};
    QTest::newRow("link to a directory") << Change([] {
        QCOMPARE(::unlink(kFile), 0);
        QCOMPARE(::symlink("../outside", kFile), 0);
    }) << qint64{10};
}

void DirectoryScanRacesTest::an_entry_counts_as_what_it_is_when_it_is_asked()
{
    QFETCH(const Change, change);
    QFETCH(const qint64, size);
    const qint64 rest = sizeOf(kRoot) + sizeOf(kDir) + kDirSize;
    const TracedProcess traced = scanAndChangeFile(change);
    QVERIFY(traced.isFinished());
    QCOMPARE(traced.output(), QStringList{QString::number(rest + size)});
}

void DirectoryScanRacesTest::each_entry_is_asked_for_its_status_once()
{
    QMap<QByteArray, int> expected{{"file", 1}, {"x", 1}, {"d", 1}};
    for (int i = 0; i < 50; ++i) {
        const QByteArray name = "file " + QByteArray::number(i);
        createFile(kDir + "/" + name, 0);
        expected[name] = 1;
    }
    QMap<QByteArray, int> asked;
    const TracedProcess traced(scan, [&asked](const TracedProcess::Call& call) {
        const QByteArray path = call.statusPath();
        if (!path.isEmpty()) {
            ++asked[path];
        }
    });
    QVERIFY(traced.isFinished());
    QCOMPARE(asked, expected);
}

TEST_DEVICE_MAIN(DirectoryScanRacesTest)
#include "DirectoryScanRacesTest.moc"
