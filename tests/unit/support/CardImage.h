#pragma once

#include <vector>

#include <QString>

/// Stands in for the card: an image file with a partition table as the disk, and the device of its
/// first partition, optionally a loop device with an ext4 file system.
namespace CardImage {

/// The paths of a disk and its first partition on the test's device.
extern const QString kDisk;
extern const QString kPartition;

/// MBR partition types.
constexpr unsigned char kLinux = 0x83;
constexpr unsigned char kFat = 0x0c;

/// Replaces the machine's block devices in sysfs by the device's own, with an empty list of MMC
/// cards. Call it once.
void prepareSysfs();
/// Lets sysfs list a card in the first MMC slot.
void listMmcCard();
void unlistMmcCard();

/// Writes a disk with a table of the given partition types.
void writeDisk(const std::vector<unsigned char>& partitionTypes);
/// Writes a disk without any partition table.
void writeBlankDisk();

/// Makes kPartition a block device with a fresh ext4 file system.
/// @return whether it succeeded
bool createPartition();
/// Mounts the partition without the service.
bool mountPartition(const QString& mountPoint);
/// Removes disk and partition. A device in use disappears when its last user closes it.
void remove();

} // namespace CardImage
