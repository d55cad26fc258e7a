#include "ConfigFileLookup.h"

#include <cerrno>

#include <QCoreApplication>
#include <QTest>

#include <unistd.h>

#include "TestDevice.h"

namespace {

bool lacksProc = false;

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

/// Cases that no board can produce: the system tests run the service with files in each of the
/// directories.
class ConfigFileLookupTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        qputenv("XDG_CONFIG_HOME", "/home/lookup/config");
        qputenv("XDG_CONFIG_DIRS", "/home/lookup/system:/etc/tavo:/home/lookup/config");
    }

    void a_directory_that_is_listed_twice_keeps_its_first_place()
    {
        QCOMPARE(ConfigFileLookup::searchDirectories(),
                 (QStringList{"/etc/tavo", "/opt/tavo/share/tavo-core/defaults",
                              QCoreApplication::applicationDirPath(), "/home/lookup/config",
                              "/home/lookup/system"}));
    }

    void an_unknown_directory_of_the_program_is_left_out()
    {
        lacksProc = true;
        const QStringList directories = ConfigFileLookup::searchDirectories();
        lacksProc = false;
        QCOMPARE(directories, (QStringList{"/etc/tavo", "/opt/tavo/share/tavo-core/defaults",
                                           "/home/lookup/config", "/home/lookup/system"}));
    }

    void all_names_of_the_option_are_listed()
    {
        const QCommandLineOption option({"t", "track"}, "track configuration file", "filename");
        QCommandLineParser parser;
        parser.addOption(option);
        parser.parse({"sdcardd"});
        QString text;
        QTextStream errors(&text);
        QCOMPARE(ConfigFileLookup::find("missing.xml", option, parser, errors), QString());
        errors.flush();
        QVERIFY2(text.endsWith("\nor specify file with command line argument: t, track\n"),
                 qPrintable(text));
    }
};

TEST_DEVICE_MAIN(ConfigFileLookupTest)
#include "ConfigFileLookupTest.moc"
