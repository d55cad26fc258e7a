#pragma once

#include <QByteArray>
#include <QString>

/// A root file system of the test: everything of the machine is visible, and all changes end with
/// the test process. So a unit test can create the absolute paths that the service uses (the LED
/// files, the tools, the mount point) and mount file systems.
namespace TestDevice {

/// Moves the process into a root file system of its own. Call it as root, before the process has a
/// second thread.
/// @return empty on success, otherwise what failed
QString enter();

/// Creates or replaces a file, with its directories.
void writeFile(const QString& path, const QByteArray& content);
/// The same for an executable that replaces a tool.
void writeScript(const QString& path, const QByteArray& content);
/// The content of a file; empty if it does not exist.
QByteArray readFile(const QString& path);
/// Removes a file or a whole tree.
void remove(const QString& path);

/// Mounts an empty tmpfs of @p bytes at @p path, which is created.
bool mountTmpfs(const QString& path, qint64 bytes, bool readOnly = false);
/// Unmounts everything that is mounted at @p path, even several times.
void unmountAll(const QString& path);

} // namespace TestDevice

/// main() of a test program that runs on a device of its own.
#define TEST_DEVICE_MAIN(TestClass)                                                                \
    int main(int argc, char* argv[])                                                               \
    {                                                                                              \
        const QString failure = TestDevice::enter();                                               \
        if (!failure.isEmpty()) {                                                                  \
            qFatal("No device for the test: %s", qPrintable(failure));                             \
        }                                                                                          \
        QCoreApplication application(argc, argv);                                                  \
        TestClass test;                                                                            \
        return QTest::qExec(&test, argc, argv);                                                    \
    }
