#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

/// The one object that a line of JSON holds; empty when it is none.
inline QJsonObject jsonOf(const QString& line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}
