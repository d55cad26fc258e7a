#include <cerrno>
#include <limits>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "LogCapture.h"
#include "SDCardFileInfo.h"
#include "TestDevice.h"

namespace {

const QString kConstructor = QStringLiteral("SDCardFileInfo::SDCardFileInfo(const QByteArray&)");
const QString kBaseName = QStringLiteral("const char* SDCardFileInfo::baseName() const");

bool lacksMemory = false;

} // namespace

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

char* __real_strdup(const char*);

char* __wrap_strdup(const char* text)
{
    if (lacksMemory) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_strdup(text);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

class SDCardFileInfoTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void a_path_is_normalised_without_looking_at_the_file_system_data();
    void a_path_is_normalised_without_looking_at_the_file_system();
    void a_relative_path_begins_in_the_working_directory();
    void without_a_working_directory_a_relative_path_is_a_fatal_error_data();
    void without_a_working_directory_a_relative_path_is_a_fatal_error();
    void the_base_name_is_the_last_component_data();
    void the_base_name_is_the_last_component();
    void without_memory_a_new_base_name_is_empty_and_a_known_one_is_kept();
    void the_status_is_that_of_the_file();
    void a_missing_entry_is_invalid_and_logged();
    void a_change_time_beyond_64_bit_nanoseconds_is_clamped_data();
    void a_change_time_beyond_64_bit_nanoseconds_is_clamped();
};

void SDCardFileInfoTest::init()
{
    QVERIFY(QDir().mkpath("/w/sub"));
}

void SDCardFileInfoTest::cleanup()
{
    QCOMPARE(::chdir("/"), 0);
    TestDevice::remove("/w");
}

void SDCardFileInfoTest::a_path_is_normalised_without_looking_at_the_file_system_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("normalised");
    QTest::newRow("clean") << QByteArray("/a/b") << QByteArray("/a/b");
    QTest::newRow("repeated slashes") << QByteArray("//a///b//") << QByteArray("/a/b");
    QTest::newRow("dots") << QByteArray("/./a/./b/.") << QByteArray("/a/b");
    QTest::newRow("parent") << QByteArray("/a/b/../c") << QByteArray("/a/c");
    QTest::newRow("parents") << QByteArray("/a/b/c/../../d") << QByteArray("/a/d");
    QTest::newRow("parent of the first") << QByteArray("/a/..") << QByteArray("/");
    QTest::newRow("above the root") << QByteArray("/../../a") << QByteArray("/a");
    QTest::newRow("root") << QByteArray("/") << QByteArray("/");
    QTest::newRow("only slashes") << QByteArray("///") << QByteArray("/");
    QTest::newRow("dots in names") << QByteArray("/a./.b/..c/...") << QByteArray("/a./.b/..c/...");
    QTest::newRow("bytes") << QByteArray("/\xff\n/../\xfe -") << QByteArray("/\xfe -");
}

void SDCardFileInfoTest::a_path_is_normalised_without_looking_at_the_file_system()
{
    QFETCH(const QByteArray, path);
    QTEST(SDCardFileInfo::absolutePath(path), "normalised");
    QTEST(SDCardFileInfo(path).path(), "normalised");
}

void SDCardFileInfoTest::a_relative_path_begins_in_the_working_directory()
{
    TestDevice::writeFile("/w/a/c", "1234567");
    QCOMPARE(::chdir("/w"), 0);
    const SDCardFileInfo info("a/./b/../c");
    QCOMPARE(info.path(), QByteArray("/w/a/c"));
    QVERIFY(info.isValid());
    QCOMPARE(info.size(), qint64{7});
    QCOMPARE(SDCardFileInfo("").path(), QByteArray("/w"));
    QCOMPARE(SDCardFileInfo("..").path(), QByteArray("/"));
}

void SDCardFileInfoTest::without_a_working_directory_a_relative_path_is_a_fatal_error_data()
{
    QTest::addColumn<int>("levels");
    QTest::addColumn<QString>("why");
    QTest::newRow("removed") << 0 << "No such file or directory";
    // "/w/sub" and 16 names of 255 bytes are 4,102 bytes.
    QTest::newRow("longer than 4,096 bytes") << 16 << "Numerical result out of range";
}

void SDCardFileInfoTest::without_a_working_directory_a_relative_path_is_a_fatal_error()
{
    QFETCH(const int, levels);
    QFETCH(const QString, why);
    const QByteArray name(255, 'x');
    QCOMPARE(::chdir("/w/sub"), 0);
    for (int i = 0; i < levels; ++i) {
        QCOMPARE(::mkdir(name.constData(), 0755), 0);
        QCOMPARE(::chdir(name.constData()), 0);
    }
    if (levels == 0) {
        QCOMPARE(::rmdir("/w/sub"), 0);
    }
    const LogCapture log;
    const SDCardFileInfo info("file");
    QVERIFY(!info.isValid());
    QCOMPARE(info.path(), QByteArray());
    const LogRecord expected{LogLevel::Fatal, "SDCardFileInfo", "SDCardFileInfo", kConstructor,
                             "SDCardFileInfo() Cannot get current working directory:" + why};
    QCOMPARE(log.records(), QVector<LogRecord>{expected});
    QCOMPARE(log.fatalCount(), 1U);
    QCOMPARE(log.errorCount(), 0U);
    QVERIFY(SDCardFileInfo("/w").isValid());
}

void SDCardFileInfoTest::the_base_name_is_the_last_component_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("baseName");
    QTest::newRow("file") << QByteArray("/media/sdcard/log") << QByteArray("log");
    QTest::newRow("directory") << QByteArray("/media/sdcard/log/") << QByteArray("log");
    QTest::newRow("extensions") << QByteArray("/media/a.tar.gz") << QByteArray("a.tar.gz");
    QTest::newRow("root") << QByteArray("/") << QByteArray();
    QTest::newRow("bytes") << QByteArray("/a/-\xff\n") << QByteArray("-\xff\n");
}

void SDCardFileInfoTest::the_base_name_is_the_last_component()
{
    QFETCH(const QByteArray, path);
    const SDCardFileInfo info(path);
    QTEST(QByteArray(info.baseName()), "baseName");
    QTEST(QByteArray(info.baseName()), "baseName");
}

void SDCardFileInfoTest::without_memory_a_new_base_name_is_empty_and_a_known_one_is_kept()
{
    const SDCardFileInfo info("/w/sub");
    const LogCapture log;
    lacksMemory = true;
    const QByteArray without = info.baseName();
    lacksMemory = false;
    QCOMPARE(without, QByteArray());
    const LogRecord expected{LogLevel::Error, "SDCardFileInfo", "SDCardFileInfo", kBaseName,
                             "baseName(): strdup: Cannot allocate memory"};
    QCOMPARE(log.records(), QVector<LogRecord>{expected});
    QCOMPARE(log.errorCount(), 1U);
    QCOMPARE(info.baseName(), "sub");
    lacksMemory = true;
    const QByteArray kept = info.baseName();
    lacksMemory = false;
    QCOMPARE(kept, QByteArray("sub"));
}

void SDCardFileInfoTest::the_status_is_that_of_the_file()
{
    TestDevice::writeFile("/w/file", "12345");
    // More than fits into 32 bits.
    QCOMPARE(::truncate("/w/file", 5'000'000'000), 0);
    struct stat status = {};
    QCOMPARE(::lstat("/w/file", &status), 0);
    const SDCardFileInfo info("/w/file");
    QVERIFY(info.isValid());
    QVERIFY(!info.isDirectory());
    QCOMPARE(info.size(), qint64{5'000'000'000});
    QCOMPARE(info.changeTime(),
             qint64{status.st_ctim.tv_sec} * 1'000'000'000 + status.st_ctim.tv_nsec);
}

void SDCardFileInfoTest::a_missing_entry_is_invalid_and_logged()
{
    const LogCapture log;
    const SDCardFileInfo info("/w//missing");
    QVERIFY(!info.isValid());
    QCOMPARE(info.path(), QByteArray("/w/missing"));
    QCOMPARE(info.baseName(), "missing");
    const LogRecord expected{LogLevel::Error, "SDCardFileInfo", "SDCardFileInfo", kConstructor,
                             "SDCardFileInfo() fstatat() failed for /w/missing: "
                             "No such file or directory"};
    QCOMPARE(log.records(), QVector<LogRecord>{expected});
    QCOMPARE(log.errorCount(), 1U);
}

void SDCardFileInfoTest::a_change_time_beyond_64_bit_nanoseconds_is_clamped_data()
{
    // Seconds have 64 bits only if time_t has.
    QTest::addColumn<qint64>("seconds");
    QTest::addColumn<qint64>("nanoseconds");
    QTest::addColumn<qint64>("changeTime");
    constexpr qint64 kMax = std::numeric_limits<qint64>::max();
    constexpr qint64 kMin = std::numeric_limits<qint64>::min();
    QTest::newRow("now") << qint64{1795000000} << qint64{999999999} << qint64{1795000000999999999};
    QTest::newRow("before the epoch") << qint64{-1} << qint64{999999999} << qint64{-1};
    if (std::numeric_limits<time_t>::max() > std::numeric_limits<qint32>::max()) {
        QTest::newRow("last") << kMax / 1000000000 << kMax % 1000000000 << kMax;
        QTest::newRow("a nanosecond later") << kMax / 1000000000 << kMax % 1000000000 + 1 << kMax;
        QTest::newRow("the last of ext4") << qint64{0x37fffffff} << qint64{0} << kMax;
        QTest::newRow("long ago") << qint64{-9300000000} << qint64{0} << kMin;
    }
}

void SDCardFileInfoTest::a_change_time_beyond_64_bit_nanoseconds_is_clamped()
{
    QFETCH(const qint64, seconds);
    QFETCH(const qint64, nanoseconds);
    struct stat status = {};
    status.st_ctim.tv_sec = static_cast<time_t>(seconds);
    status.st_ctim.tv_nsec = static_cast<decltype(status.st_ctim.tv_nsec)>(nanoseconds);
    QTEST(changeTimeOf(status), "changeTime");
}

TEST_DEVICE_MAIN(SDCardFileInfoTest)
#include "SDCardFileInfoTest.moc"
