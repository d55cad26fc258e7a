#include "fdisk.h"

#include <cstdlib>
#include <memory>

#include <libfdisk.h>

#include <tavoutil/TrackLog.h>

namespace {

constexpr auto kTrackSource = "fdisk";

constexpr int kErrorOpen = -1;
constexpr int kErrorTable = -2;

// Longest path, without the terminating zero, that this unit handles.
constexpr std::size_t kMaxPath = 255;
constexpr std::size_t kMaxName = 239;

// Partition type of Linux file systems in a DOS partition table.
constexpr unsigned int kLinuxPartitionType = 0x83;

template <auto Release>
struct Releaser
{
    template <typename Object>
    void operator()(Object* object) const
    {
        Release(object);
    }
};

using Context = std::unique_ptr<fdisk_context, Releaser<fdisk_unref_context>>;
using Table = std::unique_ptr<fdisk_table, Releaser<fdisk_unref_table>>;
using Iterator = std::unique_ptr<fdisk_iter, Releaser<fdisk_free_iter>>;

} // namespace

std::string FDisk::getDiskDevicePath(const std::string& partitionPath)
{
    const std::string partition = partitionPath.substr(0, kMaxPath);
    const std::size_t nameSlash = partition.rfind('/');
    if (nameSlash == std::string::npos) {
        return {};
    }
    const std::string directory = partition.substr(0, nameSlash);
    const std::string name = partition.substr(nameSlash + 1);

    // In sysfs a partition is a directory inside that of its disk.
    const std::string parent =
        ("/sys/class/block/" + name.substr(0, kMaxName) + "/..").substr(0, kMaxPath);
    const std::unique_ptr<char, Releaser<std::free>> resolved(::realpath(parent.c_str(), nullptr));
    if (!resolved) {
        return {};
    }
    const std::string disk(resolved.get());
    return directory + disk.substr(disk.rfind('/'));
}

// Worker threads pass their own logger, by value.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int FDisk::getNumberOfPartitions(log4cxx::LoggerPtr logger, const std::string& partitionPath,
                                 int& linuxPartitions, int& otherPartitions)
{
    const std::string diskPath = getDiskDevicePath(partitionPath);
    if (diskPath.empty()) {
        TRACK_ERROR(logger, "FDisk: Unable to get device path '" + partitionPath + "'");
        return kErrorOpen;
    }

    const Context context(fdisk_new_context());
    if (!context || fdisk_assign_device(context.get(), diskPath.c_str(), 1) != 0) {
        TRACK_ERROR(logger, "FDisk: Unable to open '" + diskPath + "'");
        return kErrorOpen;
    }

    fdisk_table* partitions = nullptr;
    const int readResult = fdisk_get_partitions(context.get(), &partitions);
    const Table table(partitions);
    if (readResult != 0) {
        TRACK_ERROR(logger, "FDisk: Failed to read partition table of device '" + diskPath + "'");
        return kErrorTable;
    }

    const Iterator iterator(fdisk_new_iter(FDISK_ITER_FORWARD));
    fdisk_partition* partition = nullptr;
    while (fdisk_table_next_partition(table.get(), iterator.get(), &partition) == 0) {
        fdisk_parttype* const type = fdisk_partition_get_type(partition);
        if (type == nullptr) {
            continue;
        }
        if (fdisk_parttype_get_code(type) == kLinuxPartitionType) {
            ++linuxPartitions;
        } else {
            ++otherPartitions;
        }
    }
    return 0;
}
