#include "ToolStandIn.h"

#include <QFile>

#include "TestDevice.h"

namespace {

const QString kBareNameTools = QStringLiteral("/opt/stand-ins");
const QString kCallsFile = QStringLiteral("/run/stand-ins/calls");
const QString kReleaseFile = QStringLiteral("/run/stand-ins/release");

} // namespace

const QString ToolStandIn::kE2fsck = kBareNameTools + "/e2fsck";
const QString ToolStandIn::kRunlevel = kBareNameTools + "/runlevel";
const QString ToolStandIn::kLsof = QStringLiteral("/usr/sbin/lsof");
const QString ToolStandIn::kFormatScript = QStringLiteral("/opt/tavo/bin/tavo-create-sdcardFS.sh");
const QByteArray ToolStandIn::kWait =
    "while [ ! -e " + kReleaseFile.toLatin1() + " ]; do sleep 0.01; done\n";

void ToolStandIn::putFirst()
{
    const QByteArray first = kBareNameTools.toLatin1() + ":";
    const QByteArray path = qgetenv("PATH");
    if (!path.startsWith(first)) {
        qputenv("PATH", first + path);
    }
}

void ToolStandIn::place(const QString& path, const QByteArray& body)
{
    TestDevice::writeScript(path, "#!/bin/sh\necho \"${0##*/}${1+ $*}\" >> " +
                                      kCallsFile.toLatin1() + "\n" + body + "\n");
    if (!QFile::exists(kCallsFile)) {
        TestDevice::writeFile(kCallsFile, {});
    }
}

QStringList ToolStandIn::calls()
{
    return QString::fromUtf8(TestDevice::readFile(kCallsFile)).split('\n', Qt::SkipEmptyParts);
}

QStringList ToolStandIn::takeCalls()
{
    QStringList taken = calls();
    TestDevice::writeFile(kCallsFile, {});
    return taken;
}

void ToolStandIn::letGo()
{
    TestDevice::writeFile(kReleaseFile, {});
}

void ToolStandIn::holdBack()
{
    TestDevice::remove(kReleaseFile);
}
