#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

/// The JSON object in a line; empty if the line is not an object.
inline QJsonObject jsonOf(const QString& line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}
