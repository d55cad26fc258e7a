#include "ToolStandIn.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TestDevice.h"

namespace {

const QString kBareNameTools = QStringLiteral("/opt/stand-ins");
const QString kCallsFile = QStringLiteral("/run/stand-ins/calls");
const QString kReleasePipe = QStringLiteral("/run/stand-ins/release");
constexpr mode_t kPipeMode = 0600;

// A reader of the pipe blocks until a writer opens it.
int releasing = -1;

} // namespace

const QString ToolStandIn::kE2fsck = kBareNameTools + "/e2fsck";
const QString ToolStandIn::kRunlevel = kBareNameTools + "/runlevel";
const QString ToolStandIn::kLsof = QStringLiteral("/usr/sbin/lsof");
const QString ToolStandIn::kFormatScript = QStringLiteral("/opt/tavo/bin/tavo-create-sdcardFS.sh");
const QByteArray ToolStandIn::kWait = ": <" + kReleasePipe.toLatin1() + "\n";

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
    if (releasing < 0) {
        releasing = ::open(QFile::encodeName(kReleasePipe).constData(), O_RDWR | O_CLOEXEC);
        if (releasing < 0) {
            qFatal("cannot open %s", qPrintable(kReleasePipe));
        }
    }
}

void ToolStandIn::holdBack()
{
    if (releasing >= 0) {
        ::close(releasing);
        releasing = -1;
    }
    if (!QFile::exists(kReleasePipe)) {
        QDir().mkpath(QFileInfo(kReleasePipe).path());
        if (::mkfifo(QFile::encodeName(kReleasePipe).constData(), kPipeMode) != 0) {
            qFatal("cannot make %s", qPrintable(kReleasePipe));
        }
    }
}
