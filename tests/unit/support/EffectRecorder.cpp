#include "EffectRecorder.h"

#include "LedRecorder.h"
#include "SDCardImpl.h"
#include "sdcard.h"

namespace {

QString levelName(LogLevel level)
{
    switch (level) {
    case LogLevel::Debug:
        return QStringLiteral("DEBUG");
    case LogLevel::Info:
        return QStringLiteral("INFO");
    case LogLevel::Warn:
        return QStringLiteral("WARN");
    case LogLevel::Error:
        return QStringLiteral("ERROR");
    case LogLevel::Fatal:
        return QStringLiteral("FATAL");
    case LogLevel::Off:
        break;
    }
    return QStringLiteral("OFF");
}

} // namespace

QStringList describe(const QVector<LogRecord>& records)
{
    QStringList texts;
    for (const LogRecord& record : records) {
        texts.append(levelName(record.level) + " " + record.channel + " " + record.source + ": " +
                     record.message);
    }
    return texts;
}

EffectRecorder::EffectRecorder(LedRecorder& leds) : mLeds(leds) {}

void EffectRecorder::follow(Sdcard& controller)
{
    mService = controller.findChild<SDCardImpl*>();
    struct Signal
    {
        void (Sdcard::*emitted)();
        const char* name;
    };
    for (const Signal& signal : {
             Signal{&Sdcard::ADD_DEVICE, "ADD_DEVICE"},
             Signal{&Sdcard::REMOVE_DEVICE, "REMOVE_DEVICE"},
             Signal{&Sdcard::SD_INSERT, "SD_INSERT"},
             Signal{&Sdcard::SD_REMOVE, "SD_REMOVE"},
             Signal{&Sdcard::START_PREPARE, "START_PREPARE"},
             Signal{&Sdcard::MOUNT_SUCCESS, "MOUNT_SUCCESS"},
             Signal{&Sdcard::MOUNT_FAILED, "MOUNT_FAILED"},
             Signal{&Sdcard::MOUNT_CORRUPT, "MOUNT_CORRUPT"},
             Signal{&Sdcard::UMOUNT_SUCCESS, "UMOUNT_SUCCESS"},
             Signal{&Sdcard::UNMOUNT_FAILED, "UNMOUNT_FAILED"},
             Signal{&Sdcard::SD_EJECT, "SD_EJECT"},
             Signal{&Sdcard::FILES_CLOSED, "FILES_CLOSED"},
         }) {
        connect(&controller, signal.emitted, this,
                [this, name = QString::fromLatin1(signal.name)] { note(name); });
    }
    struct ServiceSignal
    {
        void (SDCardImpl::*emitted)();
        const char* name;
    };
    for (const ServiceSignal& signal : {
             ServiceSignal{&SDCardImpl::CardCorrupt, "CardCorrupt"},
             ServiceSignal{&SDCardImpl::CardInserted, "CardInserted"},
             ServiceSignal{&SDCardImpl::CardMounted, "CardMounted"},
             ServiceSignal{&SDCardImpl::CardUnmounted, "CardUnmounted"},
             ServiceSignal{&SDCardImpl::CardNotMountable, "CardNotMountable"},
             ServiceSignal{&SDCardImpl::CardRemoved, "CardRemoved"},
             ServiceSignal{&SDCardImpl::EjectPressed, "EjectPressed"},
         }) {
        connect(mService, signal.emitted, this,
                [this, name = QString::fromLatin1(signal.name)] { note(name); });
    }
    connect(mService, &SDCardImpl::MemLevelChanged, this,
            [this](int level) { note("MemLevelChanged " + QString::number(level)); });
    connect(mService, &SDCardImpl::MemStateChanged, this,
            [this](int state) { note("MemStateChanged " + QString::number(state)); });
}

void EffectRecorder::note(const QString& signal)
{
    flush();
    mEffects.append(signal);
    mParts.signalNames.append(signal);
    mProperties.append(QStringLiteral("%1: State %2, IsMounted %3")
                           .arg(signal)
                           .arg(mService->state())
                           .arg(mService->isMounted() ? 1 : 0));
}

void EffectRecorder::flush()
{
    const QStringList writes = mLeds.take();
    const QStringList records = describe(mLog.records()).mid(mParts.logRecords.size());
    mEffects += writes + records;
    mParts.ledWrites += writes;
    mParts.logRecords += records;
}

QStringList EffectRecorder::take()
{
    flush();
    mLog.take();
    mParts = {};
    mProperties.clear();
    QStringList taken;
    taken.swap(mEffects);
    return taken;
}

EffectRecorder::Parts EffectRecorder::takeParts()
{
    flush();
    Parts parts = mParts;
    take();
    return parts;
}

QStringList EffectRecorder::takeProperties()
{
    QStringList properties = mProperties;
    take();
    return properties;
}
