#pragma once

#include <QMetaMethod>
#include <QMetaObject>
#include <QString>
#include <QStringList>

/// Stands in for a client that looks up methods by name: the signatures of a class's own methods of
/// one kind, in the order of the meta-object.
inline QStringList methodsOf(const QMetaObject& type, QMetaMethod::MethodType kind)
{
    QStringList methods;
    for (int index = type.methodOffset(); index < type.methodCount(); ++index) {
        const QMetaMethod method = type.method(index);
        if (method.methodType() == kind) {
            methods.append(QString::fromLatin1(method.methodSignature()));
        }
    }
    return methods;
}
