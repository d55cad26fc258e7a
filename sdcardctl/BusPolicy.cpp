#include "BusPolicy.h"

#include <QDir>
#include <QFile>
#include <QXmlStreamReader>

#include "BusNames.h"

namespace sdcardctl {

QStringList controlGroups(const QStringList& directories)
{
    QStringList groups;
    for (const QString& directory : directories) {
        for (const QFileInfo& entry : QDir(directory, "*.conf").entryInfoList()) {
            QFile file(entry.filePath());
            if (!file.open(QIODevice::ReadOnly)) {
                continue;
            }
            QString group;
            for (QXmlStreamReader xml(&file); !xml.atEnd(); xml.readNext()) {
                const auto attributes = xml.attributes();
                if (xml.isStartElement() && xml.name() == QLatin1String("policy")) {
                    group = attributes.value(QLatin1String("group")).toString();
                } else if (xml.isStartElement() && xml.name() == QLatin1String("allow") &&
                           attributes.value(QLatin1String("send_interface")) ==
                               BusNames::kControllerInterface &&
                           !group.isEmpty() && !groups.contains(group)) {
                    groups.append(group);
                }
            }
        }
    }
    return groups;
}

QString permissionDenied(const QStringList& groups)
{
    const QString group = groups.isEmpty() ? QString() : " or group " + groups.join(" or ");
    return "Permission denied: root" + group + " is required.";
}

} // namespace sdcardctl
