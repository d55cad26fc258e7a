#pragma once

#include <QString>
#include <QVector>

#include "DirInfo.h"

/// The part of the media configuration that the capacity watcher uses.
class CardLayout
{
public:
    virtual ~CardLayout() = default;

    virtual const QString& mountPoint() const = 0;
    /// The configured directories, watched or not.
    virtual const QVector<DirInfo>& dirs() const = 0;
};
