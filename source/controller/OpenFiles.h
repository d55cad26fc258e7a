#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

class QObject;
class TrackObject;

/// Finds the processes with open files on the card by lsof.
class OpenFiles
{
public:
    /// Exit code of lsof if it finds nothing.
    static constexpr int kNothingFound = 1;

    /// @param owner parent object of the programs that this object runs, and the thread it is used
    /// on
    /// @param track its logger receives the failures to run lsof
    OpenFiles(QObject* owner, const TrackObject& track) : mOwner(owner), mTrack(track) {}

    /// Finds the processes with open files below @p mountPoint.
    /// @param processIds receives their ids as lsof writes them. 0 and negative numbers are left
    /// out, because kill(2) would signal a process group
    /// @return lsof's exit code, or -1 if it did not end by itself
    int findProcesses(const QString& mountPoint, QList<QByteArray>& processIds) const;
    /// The paths below @p mountPoint that the process has open.
    QList<QByteArray> filesOf(const QByteArray& processId, const QString& mountPoint) const;
    /// The process's command name; empty when there is no such process.
    static QByteArray commandName(const QByteArray& processId);

private:
    int askLsof(const QStringList& arguments, QByteArray& output) const;

    QObject* mOwner;
    const TrackObject& mTrack;
};
