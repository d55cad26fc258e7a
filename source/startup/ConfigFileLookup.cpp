#include "ConfigFileLookup.h"

#include <array>

#include <QFile>
#include <QStandardPaths>

#include <libgen.h>
#include <unistd.h>

namespace {

constexpr std::size_t kMaxExecutablePath = 4096;

// Empty if unknown.
QString executableDirectory()
{
    std::array<char, kMaxExecutablePath> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size() - 1);
    return length < 0 ? QString() : QFile::decodeName(::dirname(path.data()));
}

} // namespace

QStringList ConfigFileLookup::searchDirectories()
{
    QStringList directories{QStringLiteral("/etc/tavo"),
                            QStringLiteral("/opt/tavo/share/tavo-core/defaults")};
    const QString executable = executableDirectory();
    if (!executable.isEmpty()) {
        directories.append(executable);
    }
    directories.append(QStandardPaths::standardLocations(QStandardPaths::ConfigLocation));
    directories.removeDuplicates();
    return directories;
}

QString ConfigFileLookup::find(const QString& defaultName, const QCommandLineOption& option,
                               const QCommandLineParser& parser, QTextStream& errors)
{
    if (parser.isSet(option)) {
        QString file = parser.value(option);
        if (QFile::exists(file)) {
            return file;
        }
        errors << "Specified configuration file not found: " << file << "\n";
        return {};
    }

    const QStringList directories = searchDirectories();
    for (const QString& directory : directories) {
        QString candidate = directory + "/" + defaultName;
        if (QFile::exists(candidate)) {
            return candidate;
        }
    }
    errors << "Configuration file not found: " << defaultName << "\n"
           << "Add it to one of these directories:\n";
    for (const QString& directory : directories) {
        errors << "  " << directory << "\n";
    }
    errors << "or specify file with command line argument: " << option.names().join(", ") << "\n";
    return {};
}
