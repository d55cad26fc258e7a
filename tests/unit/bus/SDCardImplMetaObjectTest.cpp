#include <QMetaProperty>
#include <QTest>

#include "MetaMethods.h"
#include "SDCardImpl.h"

/// What others find in the bus object's meta-object.
class SDCardImplMetaObjectTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void the_signals_have_this_order();
    void these_methods_can_be_called_by_name();
    void these_properties_can_be_read_by_name();
};

void SDCardImplMetaObjectTest::the_signals_have_this_order()
{
    QCOMPARE(methodsOf(SDCardImpl::staticMetaObject, QMetaMethod::Signal),
             (QStringList{"CardCorrupt()", "CardInserted()", "CardMounted()", "CardUnmounted()",
                          "CardNotMountable()", "CardRemoved()", "EjectPressed()",
                          "MemLevelChanged(int)", "MemStateChanged(int)"}));
}

void SDCardImplMetaObjectTest::these_methods_can_be_called_by_name()
{
    const QMetaObject& type = SDCardImpl::staticMetaObject;
    QStringList methods;
    for (const QString& method : methodsOf(type, QMetaMethod::Method)) {
        const int index = type.indexOfMethod(method.toLatin1());
        methods.append(QString::fromLatin1(type.method(index).typeName()) + " " + method);
    }
    QCOMPARE(methods,
             (QStringList{"void EnsureDirSize(QString)", "QString GetDirPath(QString)",
                          "qlonglong GetDirSize(QString)", "qlonglong getDirUsed(QString)",
                          "int RefreshMemState()", "void InsertCard()", "void RemoveCard()"}));
    QCOMPARE(methodsOf(type, QMetaMethod::Slot), QStringList());
}

void SDCardImplMetaObjectTest::these_properties_can_be_read_by_name()
{
    const QMetaObject& type = SDCardImpl::staticMetaObject;
    QStringList properties;
    for (int i = type.propertyOffset(); i < type.propertyCount(); ++i) {
        const QMetaProperty property = type.property(i);
        QVERIFY(!property.isWritable());
        properties.append(QString("%1 %2 %3")
                              .arg(property.typeName(), property.name(),
                                   QString::fromLatin1(property.notifySignal().methodSignature())));
    }
    QCOMPARE(properties, (QStringList{"bool IsMounted ", "int MemLevel MemLevelChanged(int)",
                                      "int MemState MemStateChanged(int)", "QString MountPoint ",
                                      "int State ", "int Transition "}));
}

QTEST_GUILESS_MAIN(SDCardImplMetaObjectTest)
#include "SDCardImplMetaObjectTest.moc"
