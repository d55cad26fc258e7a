#include "OpenFiles.h"

#include <QFile>
#include <QStringList>

#include <tavoutil/TrackObject.h>

#include "ProgramRunner.h"

namespace {

const QString kListOpenFilesCmd = QStringLiteral("/usr/sbin/lsof");
constexpr int kListOpenFilesTimeoutMs = 10000;

} // namespace

int OpenFiles::askLsof(const QStringList& arguments, QByteArray& output) const
{
    return ProgramRunner::run(mOwner, mTrack.logger(), kListOpenFilesCmd, arguments, output, false,
                              kListOpenFilesTimeoutMs);
}

int OpenFiles::findProcesses(const QString& mountPoint, QList<QByteArray>& processIds) const
{
    QByteArray output;
    const int exitCode = askLsof({QStringLiteral("-t"), QStringLiteral("-Q"), mountPoint}, output);
    if (exitCode == 0) {
        for (const QByteArray& piece : output.split('\n')) {
            if (piece.toInt() > 0) {
                processIds.append(piece);
            }
        }
    }
    return exitCode;
}

QList<QByteArray> OpenFiles::filesOf(const QByteArray& processId, const QString& mountPoint) const
{
    const QByteArray wanted = mountPoint.toLatin1();
    QByteArray output;
    askLsof({QStringLiteral("-F"), QStringLiteral("-p"), QString::fromLatin1(processId)}, output);
    QList<QByteArray> files;
    for (const QByteArray& line : output.split('\n')) {
        const int position = line.indexOf(wanted);
        if (position >= 0) {
            files.append(line.mid(position));
        }
    }
    return files;
}

QByteArray OpenFiles::commandName(const QByteArray& processId)
{
    QFile comm("/proc/" + processId + "/comm");
    if (!comm.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return {};
    }
    return QString::fromUtf8(comm.readAll()).simplified().toUtf8();
}
