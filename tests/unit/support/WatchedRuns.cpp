#include "WatchedRuns.h"

#include <QTest>

#include "CardConfig.h"
#include "LogCapture.h"
#include "ScannedTree.h"
#include "TestDevice.h"
#include "WatchedCard.h"

namespace {

constexpr qint64 kCardSize = 8 * 1048576LL;
constexpr int kPatienceMs = 30000;

ConfigHandler readConfig()
{
    const LogCapture unheard;
    return CardConfig::withChildren("<dir capacitywatch='true' size='-1'>first</dir>"
                                    "<dir capacitywatch='true' size='0'>second</dir>");
}

} // namespace

const QByteArray WatchedRuns::kSecond = WatchedCard::kMountPoint + "/second";
const QString WatchedRuns::kReport =
    QStringLiteral("/media/sdcard/first exceed limit but there are no files to remove");
const QString WatchedRuns::kSecondReport =
    QStringLiteral("/media/sdcard/second exceed limit but there are no files to remove");

WatchedRuns::WatchedRuns()
    : mConfig(readConfig()), mWatcher(std::make_unique<StorageCapacityWatcher>(mConfig))
{
    mountCard();
}

WatchedRuns::~WatchedRuns()
{
    destroyWatcher();
    unmountCard();
}

void WatchedRuns::mountCard()
{
    if (!TestDevice::mountTmpfs(WatchedCard::kMountPoint, kCardSize)) {
        qFatal("cannot mount a card");
    }
    ScannedTree::createDirectory(WatchedCard::kMountPoint + "/first");
    ScannedTree::createDirectory(kSecond);
}

void WatchedRuns::unmountCard()
{
    WatchedCard::remove();
}

void WatchedRuns::createFile(const QByteArray& name)
{
    ScannedTree::createFile(kSecond + "/" + name, 100);
}

bool WatchedRuns::fileExists(const QByteArray& name)
{
    return ScannedTree::exists(kSecond + "/" + name);
}

int WatchedRuns::runs() const
{
    return mWatcher->findChildren<WorkerThread*>().size();
}

bool WatchedRuns::waitForEnd() const
{
    return QTest::qWaitFor([this] { return runs() == 0; }, kPatienceMs);
}

QTimer& WatchedRuns::timer()
{
    return *mWatcher->findChild<QTimer*>("interval timer");
}
