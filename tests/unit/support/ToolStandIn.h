#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Stand in for the external programs that the service starts: scripts that record how they are
/// called before they do what the test wants.
namespace ToolStandIn {

/// Where the stand-ins of the programs that are started by their bare names lie; putFirst() makes
/// the search path find them.
extern const QString kE2fsck;
extern const QString kRunlevel;
/// The programs that are started by their paths.
extern const QString kLsof;
extern const QString kFormatScript;

/// A shell command that waits until letGo() is called; it fails before the first holdBack().
extern const QByteArray kWait;

/// Makes the search path begin with the directory of the stand-ins.
void putFirst();
/// Places a script at @p path. @p body is run by the shell, with the arguments in "$@".
void place(const QString& path, const QByteArray& body);
/// The calls since the last takeCalls(), each as the program's file name and its arguments.
QStringList calls();
/// calls(), which then start anew; none may be under way.
QStringList takeCalls();

/// Makes every kWait to come wait.
void holdBack();
/// Makes every kWait that runs or will run end, until the next holdBack(), of which there was one.
void letGo();

} // namespace ToolStandIn
