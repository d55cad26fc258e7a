#include "MountTable.h"

#include <QFile>

#include "SdcardDefs.h"

MountState mountStateOf(const QString& mountPoint)
{
    QFile table(SdcardDefs::kMmcMountTable);
    if (!table.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return MountState::NotMounted;
    }
    const QByteArray wanted = mountPoint.toUtf8();
    for (QByteArray line = table.readLine(); !line.isEmpty(); line = table.readLine()) {
        if (!line.contains(wanted)) {
            continue;
        }
        if (line.contains("rw")) {
            return MountState::ReadWrite;
        }
        return line.contains("ro") ? MountState::ReadOnly : MountState::Unclear;
    }
    return MountState::NotMounted;
}
