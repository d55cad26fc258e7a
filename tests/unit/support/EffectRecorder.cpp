#include "EffectRecorder.h"

#include <QDBusAbstractAdaptor>
#include <QMetaMethod>
#include <QTimer>

#include "LedRecorder.h"
#include "SDCardImpl.h"
#include "sdcard.h"

void EffectRecorder::follow(Sdcard& controller)
{
    mController = &controller;
    mService = controller.findChild<SDCardImpl*>();
    followSignals(controller);
    // An adaptor's signal is the one on the bus, and is sent before the controller reacts.
    for (const QDBusAbstractAdaptor* const adaptor :
         mService->findChildren<QDBusAbstractAdaptor*>()) {
        followSignals(*adaptor);
    }
}

void EffectRecorder::followSignals(const QObject& sender)
{
    const QMetaObject& type = *sender.metaObject();
    for (int index = type.methodOffset(); index < type.methodCount(); ++index) {
        const QMetaMethod method = type.method(index);
        if (method.methodType() == QMetaMethod::Signal) {
            const int slot = metaObject()->indexOfSlot(
                method.parameterCount() == 0 ? "noteSignal()" : "noteSignal(int)");
            connect(&sender, method, this, metaObject()->method(slot));
        }
    }
}

void EffectRecorder::noteSignal()
{
    note(QString::fromLatin1(sender()->metaObject()->method(senderSignalIndex()).name()));
}

void EffectRecorder::noteSignal(int value)
{
    note(QStringLiteral("%1 %2")
             .arg(QString::fromLatin1(sender()->metaObject()->method(senderSignalIndex()).name()))
             .arg(value));
}

void EffectRecorder::note(const QString& what)
{
    flush();
    mEffects.append(what);
    mParts.signalNames.append(what);
    QString properties = QStringLiteral("%1: State %2, Transition %3, IsMounted %4")
                             .arg(what)
                             .arg(mService->state())
                             .arg(mService->transition())
                             .arg(mService->isMounted() ? 1 : 0);
    for (const QTimer* const timer : mController->findChildren<QTimer*>()) {
        if (timer->isActive()) {
            properties += ", " + timer->objectName();
        }
    }
    mProperties.append(properties);
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
