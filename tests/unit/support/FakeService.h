#pragma once

#include <QMap>
#include <QObject>
#include <QStringList>

#include "BusNames.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "SDCardImpl.h"
#include "SdcardInterface.h"

/// The service's real bus object, with a simulated controller.
class FakeService : public QObject, public SdcardInterface
{
public:
    struct Directory
    {
        QString path;
        qint64 size;
        qint64 used;
    };

    /// On the bus from the construction to the destruction.
    explicit FakeService(const PrivateBus& bus)
        : card(QStringLiteral("/media/sdcard"), this), mBus(bus.connection())
    {
        mBus.registerObject(BusNames::kCardObject, &card);
        mBus.registerService(BusNames::kService);
    }
    Q_DISABLE_COPY_MOVE(FakeService)
    ~FakeService() override
    {
        mBus.unregisterService(BusNames::kService);
        mBus.unregisterObject(BusNames::kCardObject);
    }

    qint64 getDirSize(const QString& id) override { return directories.value(id).size; }
    qint64 getDirUsed(const QString& id) override { return directories.value(id).used; }
    QString getDirPath(const QString& id) override { return directories.value(id).path; }
    bool ensureDirSize(const QString& id) override
    {
        ensured.append(id);
        return id.isEmpty() || directories.contains(id);
    }
    void checkMemState() override { card.setMemState(refreshedMemState); }

    SDCardImpl card;
    QMap<QString, Directory> directories;
    QStringList ensured; ///< the identifiers of all EnsureDirSize calls
    int refreshedMemState = 0;

private:
    LogCapture mLog; // keeps records off standard error
    QDBusConnection mBus;
};
