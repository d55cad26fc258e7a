#pragma once

#include <QDBusContext>
#include <QObject>
#include <QString>

#include <tavoutil/TrackObject.h>

#include "CardStatus.h"

class SdcardInterface;

/// The bus object: the card's published properties, signals and methods. Passes the methods on to
/// its parent, an SdcardInterface. Its children are the adaptors that export it.
class SDCardImpl : public QObject, public QDBusContext, public TrackObject
{
    Q_OBJECT
    Q_PROPERTY(bool IsMounted READ isMounted)
    Q_PROPERTY(int MemLevel READ memLevel NOTIFY MemLevelChanged)
    Q_PROPERTY(int MemState READ memState NOTIFY MemStateChanged)
    Q_PROPERTY(QString MountPoint READ mountPoint)
    Q_PROPERTY(int State READ state)
    Q_PROPERTY(int Transition READ transition)

public:
    SDCardImpl(QString mountPoint, QObject* parent);
    SDCardImpl(const SDCardImpl&) = delete;
    SDCardImpl& operator=(const SDCardImpl&) = delete;
    ~SDCardImpl() override;

    bool isMounted() const { return mIsMounted; }
    /// Used share of the card in percent.
    int memLevel() const { return mMemLevel; }
    /// A value of the enumeration MemState; state() and transition() likewise.
    int memState() const { return mMemState; }
    QString mountPoint() const { return mMountPoint; }
    int state() const { return mState; }
    int transition() const { return mTransition; }

    void setIsMounted(bool isMounted) { mIsMounted = isMounted; }
    /// Emits MemLevelChanged if the level changes.
    void setMemLevel(int level);
    /// Emits MemStateChanged if the state changes.
    void setMemState(int state);
    void setMemState(MemState state) { setMemState(static_cast<int>(state)); }
    /// Part of the published interface. The service itself passes the mount point to the
    /// constructor.
    void setMountPoint(const QString& mountPoint) { mMountPoint = mountPoint; }
    void setState(int state) { mState = state; }
    void setState(State state) { setState(static_cast<int>(state)); }
    void setTransition(int transition) { mTransition = transition; }
    void setTransition(Transition transition) { setTransition(static_cast<int>(transition)); }

    /// Brings a watched directory, or all of them for an empty @p id, back within its share. The
    /// reply to an unknown one is the bus error InvalidArgs.
    Q_INVOKABLE void EnsureDirSize(const QString& id);
    /// The absolute path of a configured directory or link. The reply to an unknown one is the bus
    /// error InvalidArgs.
    Q_INVOKABLE QString GetDirPath(const QString& id);
    /// Bytes allotted to a configured directory. Error as in GetDirPath().
    Q_INVOKABLE qint64 GetDirSize(const QString& id);
    /// Bytes used by a configured directory, or by the whole card for an empty @p id. Error as in
    /// GetDirPath().
    Q_INVOKABLE qint64 getDirUsed(const QString& id);
    /// Recomputes memory state and level and returns the new memory state.
    Q_INVOKABLE int RefreshMemState();
    Q_INVOKABLE void InsertCard();
    Q_INVOKABLE void RemoveCard();

Q_SIGNALS:
    void CardCorrupt();
    void CardInserted();
    void CardMounted();
    void CardUnmounted();
    void CardNotMountable();
    void CardRemoved();
    void EjectPressed();
    void MemLevelChanged(int level);
    void MemStateChanged(int state);

private:
    SdcardInterface* controller() const;
    void replyInvalidArgs(const QString& message) const;

    bool mIsMounted = false;
    int mMemLevel = 0;
    int mMemState = 0;
    QString mMountPoint;
    int mState = 0;
    int mTransition = 0;
};
