#include "CardConfig.h"

#include "TestDevice.h"

void CardConfig::write(const QByteArray& content)
{
    TestDevice::writeFile(kFile, content);
}

ConfigHandler CardConfig::withChildren(const QByteArray& children)
{
    write("<sdcard>" + children + "</sdcard>");
    ConfigHandler config;
    if (!config.setup()) {
        qFatal("cannot read <sdcard>%s</sdcard>", children.constData());
    }
    return config;
}
