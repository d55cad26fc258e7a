#include "VersionRecord.h"

QString VersionRecord::toString() const
{
    QString text = number.toString();
    if (external != 0) {
        text += " (external:" + QString::number(external) + ")";
    }
    if (!builder.isEmpty()) {
        text += " by " + builder;
    }
    if (modified) {
        text += QLatin1String(" modified");
    }
    return text;
}
