#pragma once

#include <QString>
#include <QVector>

#include "DirInfo.h"

/// What the capacity watcher needs to know of the media configuration.
class CardLayout
{
public:
    virtual ~CardLayout() = default;

    virtual const QString& mountPoint() const = 0;
    /// The configured directories, watched or not.
    virtual const QVector<DirInfo>& dirs() const = 0;
};
