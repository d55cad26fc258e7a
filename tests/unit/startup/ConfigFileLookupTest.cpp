#include <cerrno>

#include <QCoreApplication>
#include <QDir>
#include <QTest>

#include <unistd.h>

#include "ConfigFileLookup.h"
#include "TestDevice.h"

namespace {

const QString kName = QStringLiteral("tavo-sdcard.trackconfig.xml");
const QString kFirst = QStringLiteral("/etc/tavo");
const QString kSecond = QStringLiteral("/opt/tavo/share/tavo-core/defaults");
const QString kHome = QStringLiteral("/home/lookup/config");
const QString kSystem = QStringLiteral("/home/lookup/system");

bool lacksProc = false;

struct Lookup
{
    QString file;
    QString errors;
};

Lookup lookUp(const QStringList& arguments, const QStringList& optionNames = {"track"})
{
    QCommandLineParser parser;
    const QCommandLineOption option(optionNames, "track configuration file", "filename");
    parser.addOption(option);
    parser.parse(QStringList{"sdcardd"} + arguments);
    Lookup result;
    QTextStream errors(&result.errors);
    result.file = ConfigFileLookup::find(kName, option, parser, errors);
    errors.flush();
    return result;
}

QString path(const QString& directory)
{
    return directory + "/" + kName;
}

} // namespace

// The linker's option --wrap leads the service's calls here; it prescribes the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

ssize_t __real_readlink(const char*, char*, size_t);

ssize_t __wrap_readlink(const char* path, char* buffer, size_t size)
{
    if (lacksProc) {
        errno = ENOENT;
        return -1;
    }
    return __real_readlink(path, buffer, size);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

class ConfigFileLookupTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void the_search_directories_stand_in_their_order();
    void a_directory_that_is_listed_twice_keeps_its_first_place();
    void an_unknown_directory_of_the_program_is_left_out();
    void the_first_directory_with_the_file_wins_data();
    void the_first_directory_with_the_file_wins();
    void the_file_that_the_option_names_wins();
    void a_missing_file_of_the_option_is_reported_and_nothing_else_is_searched();
    void where_there_is_no_file_all_directories_are_listed();
    void all_names_of_the_option_are_listed();
};

void ConfigFileLookupTest::init()
{
    qputenv("XDG_CONFIG_HOME", kHome.toLocal8Bit());
    qputenv("XDG_CONFIG_DIRS", kSystem.toLocal8Bit());
    for (const QString& directory : ConfigFileLookup::searchDirectories()) {
        TestDevice::remove(path(directory));
    }
}

void ConfigFileLookupTest::the_search_directories_stand_in_their_order()
{
    QCOMPARE(
        ConfigFileLookup::searchDirectories(),
        (QStringList{kFirst, kSecond, QCoreApplication::applicationDirPath(), kHome, kSystem}));
}

void ConfigFileLookupTest::a_directory_that_is_listed_twice_keeps_its_first_place()
{
    qputenv("XDG_CONFIG_DIRS", (kSystem + ":" + kFirst + ":" + kHome).toLocal8Bit());
    QCOMPARE(
        ConfigFileLookup::searchDirectories(),
        (QStringList{kFirst, kSecond, QCoreApplication::applicationDirPath(), kHome, kSystem}));
}

void ConfigFileLookupTest::an_unknown_directory_of_the_program_is_left_out()
{
    lacksProc = true;
    const QStringList directories = ConfigFileLookup::searchDirectories();
    lacksProc = false;
    QCOMPARE(directories, (QStringList{kFirst, kSecond, kHome, kSystem}));
}

void ConfigFileLookupTest::the_first_directory_with_the_file_wins_data()
{
    QTest::addColumn<int>("first");
    for (int i = 0; i < ConfigFileLookup::searchDirectories().size(); ++i) {
        QTest::addRow("directory %d", i) << i;
    }
}

void ConfigFileLookupTest::the_first_directory_with_the_file_wins()
{
    QFETCH(const int, first);
    const QStringList directories = ConfigFileLookup::searchDirectories();
    for (int i = first; i < directories.size(); ++i) {
        TestDevice::writeFile(path(directories[i]), "");
    }
    const Lookup result = lookUp({});
    QCOMPARE(result.file, path(directories[first]));
    QCOMPARE(result.errors, QString());
}

void ConfigFileLookupTest::the_file_that_the_option_names_wins()
{
    const QString named = QStringLiteral("/home/lookup/named.xml");
    TestDevice::writeFile(path(kFirst), "");
    TestDevice::writeFile(named, "");
    const Lookup result = lookUp({"--track", named});
    QCOMPARE(result.file, named);
    QCOMPARE(result.errors, QString());
}

void ConfigFileLookupTest::a_missing_file_of_the_option_is_reported_and_nothing_else_is_searched()
{
    TestDevice::writeFile(path(kFirst), "");
    const Lookup result = lookUp({"--track", "/home/lookup/missing.xml"});
    QCOMPARE(result.file, QString());
    QCOMPARE(result.errors,
             QString("Specified configuration file not found: /home/lookup/missing.xml\n"));
}

void ConfigFileLookupTest::where_there_is_no_file_all_directories_are_listed()
{
    const Lookup result = lookUp({});
    QCOMPARE(result.file, QString());
    QCOMPARE(result.errors, QString("Configuration file not found: tavo-sdcard.trackconfig.xml\n"
                                    "Add it to one of these directories:\n"
                                    "  /etc/tavo\n"
                                    "  /opt/tavo/share/tavo-core/defaults\n"
                                    "  " +
                                    QCoreApplication::applicationDirPath() +
                                    "\n"
                                    "  /home/lookup/config\n"
                                    "  /home/lookup/system\n"
                                    "or specify file with command line argument: track\n"));
}

void ConfigFileLookupTest::all_names_of_the_option_are_listed()
{
    const Lookup result = lookUp({}, {"t", "track"});
    QVERIFY2(result.errors.endsWith("\nor specify file with command line argument: t, track\n"),
             qPrintable(result.errors));
}

TEST_DEVICE_MAIN(ConfigFileLookupTest)
#include "ConfigFileLookupTest.moc"
