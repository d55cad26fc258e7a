#pragma once

#include <vector>

#include <QString>

/// Stands in for the card: a disk with a partition table, which is an image file, and the device of
/// its first partition, which is, where asked for, a loop device with an ext4 file system.
namespace CardImage {

/// What a disk and its first partition are called on the test's device.
extern const QString kDisk;
extern const QString kPartition;

/// MBR partition types.
constexpr unsigned char kLinux = 0x83;
constexpr unsigned char kFat = 0x0c;

/// Gives the device block devices of its own names in sysfs, in the place of the machine's, and an
/// empty list of MMC cards. To be called once.
void prepareSysfs();
/// Lets sysfs list a card in the first MMC slot.
void listMmcCard();
void unlistMmcCard();

/// Writes a disk with a table of the given partition types.
void writeDisk(const std::vector<unsigned char>& partitionTypes);
/// Writes a disk without any partition table.
void writeBlankDisk();

/// Makes kPartition a block device with a fresh ext4 file system.
/// @return whether that succeeded
bool createPartition();
/// Mounts the partition by itself, without the service.
bool mountPartition(const QString& mountPoint);
/// Removes disk and partition; a device that is still in use goes with its last user.
void remove();

} // namespace CardImage
