#pragma once

#include <QDBusContext>
#include <QObject>
#include <QString>

#include <tavoutil/TrackObject.h>

#include "CardStatus.h"

class SdcardInterface;

/// The object on the bus: the card's published properties and signals, and the methods, which it
/// passes on to its parent, a SdcardInterface. The adaptors that export it are its children.
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
    /// A value of the enumeration MemState; State and Transition below likewise.
    int memState() const { return mMemState; }
    QString mountPoint() const { return mMountPoint; }
    int state() const { return mState; }
    int transition() const { return mTransition; }

    void setIsMounted(bool isMounted) { mIsMounted = isMounted; }
    /// Emits MemLevelChanged where the level differs from the present one.
    void setMemLevel(int level);
    /// Emits MemStateChanged where the state differs from the present one.
    void setMemState(int state);
    void setMemState(MemState state) { setMemState(static_cast<int>(state)); }
    /// Part of the published interface; the service gives the mount point to the constructor.
    void setMountPoint(const QString& mountPoint) { mMountPoint = mountPoint; }
    void setState(int state) { mState = state; }
    void setState(State state) { setState(static_cast<int>(state)); }
    void setTransition(int transition) { mTransition = transition; }
    void setTransition(Transition transition) { setTransition(static_cast<int>(transition)); }

    /// Brings a watched directory, or all for an empty @p id, back within its share. An unknown one
    /// is answered with the bus error InvalidArgs.
    Q_INVOKABLE void EnsureDirSize(const QString& id);
    /// The absolute path of a configured directory or link. An unknown one is answered with the bus
    /// error InvalidArgs.
    Q_INVOKABLE QString GetDirPath(const QString& id);
    /// Bytes allotted to a configured directory; an unknown one as in GetDirPath().
    Q_INVOKABLE qint64 GetDirSize(const QString& id);
    /// Bytes used by a configured directory, for an empty @p id by the whole card; an unknown one
    /// as in GetDirPath().
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
