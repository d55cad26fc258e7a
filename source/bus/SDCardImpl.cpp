#include "SDCardImpl.h"

#include <utility>

#include <QDBusError>

#include <tavoutil/TrackLog.h>

#include "DBusSDCard1Adaptor.h"
#include "DBusSDCardController1Adaptor.h"
#include "SdcardInterface.h"

namespace {

constexpr auto kTrackSource = "SDCardImpl";

} // namespace

SDCardImpl::SDCardImpl(QString mountPoint, QObject* parent)
    : QObject(parent), mMountPoint(std::move(mountPoint))
{
    initTrack("SDCardImpl");
    new DBusSDCard1Adaptor(this);
    new DBusSDCardController1Adaptor(this);
}

SDCardImpl::~SDCardImpl() = default;

void SDCardImpl::setMemLevel(int level)
{
    if (mMemLevel != level) {
        mMemLevel = level;
        Q_EMIT MemLevelChanged(level);
    }
}

void SDCardImpl::setMemState(int state)
{
    if (mMemState != state) {
        mMemState = state;
        Q_EMIT MemStateChanged(state);
    }
}

SdcardInterface* SDCardImpl::controller() const
{
    return dynamic_cast<SdcardInterface*>(parent());
}

void SDCardImpl::replyInvalidArgs(const QString& message) const
{
    if (calledFromDBus()) {
        sendErrorReply(QDBusError::InvalidArgs, message);
    }
}

void SDCardImpl::EnsureDirSize(const QString& id)
{
    SdcardInterface* const card = controller();
    if (card == nullptr || card->ensureDirSize(id)) {
        return;
    }
    const QString message =
        "'id'-argument '" + id + "' does not specify a capacity watched directory";
    TRACK_ERROR(logger(), "EnsureDirSize(): reply '" + message + "'");
    replyInvalidArgs(message);
}

QString SDCardImpl::GetDirPath(const QString& id)
{
    SdcardInterface* const card = controller();
    if (card == nullptr) {
        return {};
    }
    const QString path = card->getDirPath(id);
    if (!path.isEmpty()) {
        return mMountPoint + path;
    }
    const QString message = "'id'-argument '" + id + "' does not specify a directory name";
    TRACK_ERROR(logger(), "GetDirPath(): reply '" + message + "'");
    replyInvalidArgs(message);
    return {};
}

qint64 SDCardImpl::GetDirSize(const QString& id)
{
    SdcardInterface* const card = controller();
    if (card == nullptr || (!id.isEmpty() && GetDirPath(id).isEmpty())) {
        return 0;
    }
    return card->getDirSize(id);
}

qint64 SDCardImpl::getDirUsed(const QString& id)
{
    SdcardInterface* const card = controller();
    if (card == nullptr || (!id.isEmpty() && GetDirPath(id).isEmpty())) {
        return 0;
    }
    return card->getDirUsed(id);
}

int SDCardImpl::RefreshMemState()
{
    if (SdcardInterface* const card = controller()) {
        card->checkMemState();
    }
    return mMemState;
}

void SDCardImpl::InsertCard()
{
    if (controller() != nullptr) {
        Q_EMIT CardInserted();
    }
}

void SDCardImpl::RemoveCard()
{
    if (controller() != nullptr) {
        Q_EMIT CardRemoved();
    }
}
