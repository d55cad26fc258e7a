#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Stands in for the external programs that the service starts: scripts that record their calls and
/// then run a command of the test.
namespace ToolStandIn {

/// The directory of the stand-ins for programs that are started by their bare names; putFirst()
/// puts it into the search path.
extern const QString kE2fsck;
extern const QString kRunlevel;
/// The programs that are started by their absolute paths.
extern const QString kLsof;
extern const QString kFormatScript;

/// A shell command that waits until letGo() is called; it fails before the first holdBack().
extern const QByteArray kWait;

/// Puts the directory of the stand-ins first into the search path.
void putFirst();
/// Places a script at @p path. @p body is run by the shell, with the arguments in "$@".
void place(const QString& path, const QByteArray& body);
/// The calls since the last takeCalls(), each as the program's file name and its arguments.
QStringList calls();
/// Returns calls() and clears them; no call may be running.
QStringList takeCalls();

/// Makes every later kWait block.
void holdBack();
/// Ends every kWait that runs or will run, until the next holdBack(). There must have been one.
void letGo();

} // namespace ToolStandIn
