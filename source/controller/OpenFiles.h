#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

class QObject;
class TrackObject;

/// Asks lsof which processes hold files open on the card, and signals processes.
class OpenFiles
{
public:
    /// Exit code of lsof where it finds nothing.
    static constexpr int kNothingFound = 1;

    /// @param owner parent object of the programs that are run, in whose thread this is used
    /// @param track its logger receives the failures to run lsof
    OpenFiles(QObject* owner, const TrackObject& track) : mOwner(owner), mTrack(track) {}

    /// Finds the processes that hold files below @p mountPoint open.
    /// @param processIds receives their ids as lsof writes them; never 0 or negative, which kill(2)
    /// would take for a group of processes
    /// @return lsof's exit code, or -1 when it did not end by itself
    int findProcesses(const QString& mountPoint, QList<QByteArray>& processIds) const;
    /// The paths below @p mountPoint that a process holds open.
    QList<QByteArray> filesOf(const QByteArray& processId, const QString& mountPoint) const;
    /// The process's command name; empty when there is no such process.
    static QByteArray commandName(const QByteArray& processId);

private:
    int askLsof(const QStringList& arguments, QByteArray& output) const;

    QObject* mOwner;
    const TrackObject& mTrack;
};
