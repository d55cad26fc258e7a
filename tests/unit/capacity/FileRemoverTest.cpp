#include <algorithm>
#include <cerrno>

#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include <log4cxx/logger.h>

#include "FileRemover.h"
#include "ScannedTree.h"
#include "TestDevice.h"

namespace {

const QByteArray kRoot = QByteArrayLiteral("/w");
const QByteArray kDirectory = kRoot + "/a";
const QByteArray kFile = kDirectory + "/file";

} // namespace

class FileRemoverTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_scanned_file_is_removed();
    void a_link_is_removed_and_not_what_it_leads_to();
    void a_file_that_is_gone_is_reported();
    void a_new_file_of_the_name_stays();
    void a_file_that_has_been_written_since_is_removed();
    void nothing_is_removed_behind_a_link_in_the_place_of_the_directory();
    void nothing_is_removed_from_a_new_directory_of_the_name();

private:
    int removeOldest();

    CancellationSource mRuns;
    std::optional<DirectoryScan> mScan;
};

void FileRemoverTest::init()
{
    QVERIFY(QDir().mkpath(kDirectory));
    ScannedTree::createFile(kFile, 10);
    mScan.emplace(log4cxx::Logger::getLogger("scan"), mRuns.token());
    mScan->run(kRoot, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
}

void FileRemoverTest::cleanup()
{
    TestDevice::remove("/w");
    TestDevice::remove("/elsewhere");
}

int FileRemoverTest::removeOldest()
{
    return FileRemover(*mScan).remove(mScan->files().at(0));
}

void FileRemoverTest::a_scanned_file_is_removed()
{
    QCOMPARE(removeOldest(), 0);
    QVERIFY(!ScannedTree::exists(kFile));
}

void FileRemoverTest::a_link_is_removed_and_not_what_it_leads_to()
{
    ScannedTree::createFile(kRoot + "/target");
    QCOMPARE(::symlink("../target", (kDirectory + "/link").constData()), 0);
    DirectoryScan scan(log4cxx::Logger::getLogger("scan"), mRuns.token());
    scan.run(kDirectory, DirectoryScan::Extent::WholeTree, DirectoryScan::Keep::Files);
    FileRemover remover(scan);
    for (const DirectoryScan::File& file : scan.files()) {
        QCOMPARE(remover.remove(file), 0);
    }
    QVERIFY(!ScannedTree::exists(kDirectory + "/link"));
    QVERIFY(ScannedTree::exists(kRoot + "/target"));
}

void FileRemoverTest::a_file_that_is_gone_is_reported()
{
    QCOMPARE(::unlink(kFile.constData()), 0);
    QCOMPARE(removeOldest(), ENOENT);
}

void FileRemoverTest::a_new_file_of_the_name_stays()
{
    ScannedTree::createFile(kDirectory + "/new", 10);
    QCOMPARE(::rename((kDirectory + "/new").constData(), kFile.constData()), 0);
    QCOMPARE(removeOldest(), ESTALE);
    QVERIFY(ScannedTree::exists(kFile));
}

void FileRemoverTest::a_file_that_has_been_written_since_is_removed()
{
    TestDevice::writeFile(kFile, "more");
    QCOMPARE(removeOldest(), 0);
    QVERIFY(!ScannedTree::exists(kFile));
}

void FileRemoverTest::nothing_is_removed_behind_a_link_in_the_place_of_the_directory()
{
    QVERIFY(QDir().mkpath("/elsewhere"));
    ScannedTree::createFile("/elsewhere/file");
    QCOMPARE(::rename(kDirectory.constData(), (kRoot + "/b").constData()), 0);
    QCOMPARE(::symlink("/elsewhere", kDirectory.constData()), 0);
    QVERIFY(removeOldest() != 0);
    QVERIFY(ScannedTree::exists("/elsewhere/file"));
    QVERIFY(ScannedTree::exists(kRoot + "/b/file"));
}

void FileRemoverTest::nothing_is_removed_from_a_new_directory_of_the_name()
{
    QCOMPARE(::rename(kDirectory.constData(), (kRoot + "/b").constData()), 0);
    QVERIFY(QDir().mkpath(kDirectory));
    QCOMPARE(::link((kRoot + "/b/file").constData(), kFile.constData()), 0);
    QCOMPARE(removeOldest(), ESTALE);
    QVERIFY(ScannedTree::exists(kFile));
}

TEST_DEVICE_MAIN(FileRemoverTest)
#include "FileRemoverTest.moc"
