#include "CardImage.h"

#include <array>

#include <QDir>
#include <QFile>
#include <QProcess>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TestDevice.h"

namespace {

const QString kCardDirectory = QStringLiteral("/card");
const QString kFileSystemImage = kCardDirectory + "/filesystem";
const QString kMmcDevices = QStringLiteral("/sys/bus/mmc/devices");

constexpr int kSectorSize = 512;
constexpr int kDiskSectors = 16384;
constexpr int kPartitionSectors = 2048;
constexpr int kTableOffset = 446;
constexpr int kEntrySize = 16;
constexpr int kFileSystemKiB = 8192;
constexpr qint64 kSysfsSize = 1 << 20;
constexpr mode_t kBlockDevice = S_IFBLK | 0600;

// Attaches the image to a free loop device, which detaches itself when it is no longer used.
// Returns a descriptor of the device, or -1.
int attachLoop(const QString& image)
{
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int backing = ::open(QFile::encodeName(image).constData(), O_RDWR | O_CLOEXEC);
    int loop = -1;
    // Another process may take the device with the found number first.
    for (int attempt = 0; attempt < 100 && loop < 0; ++attempt) {
        const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
        const QByteArray name = "/dev/loop" + QByteArray::number(number);
        loop = ::open(name.constData(), O_RDWR | O_CLOEXEC);
        loop_config config{};
        config.fd = static_cast<__u32>(backing);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (loop >= 0 && ::ioctl(loop, LOOP_CONFIGURE, &config) != 0) {
            ::close(loop);
            loop = -1;
        }
    }
    ::close(backing);
    ::close(control);
    return loop;
}

int partitionLoop = -1;

} // namespace

const QString CardImage::kDisk = kCardDirectory + "/mmcblk0";
const QString CardImage::kPartition = kCardDirectory + "/mmcblk0p1";

void CardImage::prepareSysfs()
{
    TestDevice::mountTmpfs(QStringLiteral("/sys/class/block"), kSysfsSize);
    QDir().mkpath(QStringLiteral("/sys/class/block/mmcblk0/mmcblk0p1"));
    QFile::link(QStringLiteral("mmcblk0/mmcblk0p1"), QStringLiteral("/sys/class/block/mmcblk0p1"));
    TestDevice::mountTmpfs(QStringLiteral("/sys/bus"), kSysfsSize);
    QDir().mkpath(kMmcDevices);
}

void CardImage::listMmcCard()
{
    QFile::link(QStringLiteral("../../../devices/mmc0:0001"), kMmcDevices + "/mmc0:0001");
}

void CardImage::unlistMmcCard()
{
    QFile::remove(kMmcDevices + "/mmc0:0001");
}

void CardImage::writeDisk(const std::vector<unsigned char>& partitionTypes)
{
    QByteArray table(kSectorSize, '\0');
    int index = 0;
    for (const unsigned char type : partitionTypes) {
        const int start = kPartitionSectors * (index + 1);
        const int entry = kTableOffset + kEntrySize * index;
        const auto putNumber = [&table](int offset, int number) {
            for (int byte = 0; byte < 4; ++byte) {
                table[offset + byte] = static_cast<char>(number >> (8 * byte));
            }
        };
        table[entry + 4] = static_cast<char>(type);
        putNumber(entry + 8, start);
        putNumber(entry + 12, kPartitionSectors);
        ++index;
    }
    table[kSectorSize - 2] = '\x55';
    table[kSectorSize - 1] = '\xaa';
    TestDevice::writeFile(kDisk, table);
    QFile::resize(kDisk, qint64{kSectorSize} * kDiskSectors);
}

void CardImage::writeBlankDisk()
{
    TestDevice::writeFile(kDisk, {});
    QFile::resize(kDisk, qint64{kSectorSize} * kDiskSectors);
}

bool CardImage::createPartition()
{
    TestDevice::writeFile(kFileSystemImage, {});
    QFile::resize(kFileSystemImage, qint64{kFileSystemKiB} * 1024);
    if (QProcess::execute(QStringLiteral("mkfs.ext4"),
                          {"-q", "-F", "-b", "1024", kFileSystemImage}) != 0) {
        return false;
    }
    partitionLoop = attachLoop(kFileSystemImage);
    struct stat status = {};
    QFile::remove(kPartition);
    return partitionLoop >= 0 && ::fstat(partitionLoop, &status) == 0 &&
           ::mknod(QFile::encodeName(kPartition).constData(), kBlockDevice, status.st_rdev) == 0;
}

bool CardImage::mountPartition(const QString& mountPoint)
{
    QDir().mkpath(mountPoint);
    return ::mount(QFile::encodeName(kPartition).constData(),
                   QFile::encodeName(mountPoint).constData(), "ext4", 0, nullptr) == 0;
}

void CardImage::remove()
{
    if (partitionLoop >= 0) {
        ::close(partitionLoop);
        partitionLoop = -1;
    }
    TestDevice::remove(kCardDirectory);
}
