#pragma once

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QString>
#include <QStringList>
#include <QTextStream>

/// Finds a configuration file: the one that the command line names, else the first in the search
/// directories.
namespace ConfigFileLookup {

/// The directories that are searched, in order, each once.
QStringList searchDirectories();

/// @param defaultName the file's name in the search directories
/// @param option the option that may name a file; if it is set, only that file is looked for
/// @param parser must have processed the command line
/// @param errors receives why no file was found
/// @return the file's path; empty when there is none
QString find(const QString& defaultName, const QCommandLineOption& option,
             const QCommandLineParser& parser, QTextStream& errors);

} // namespace ConfigFileLookup
