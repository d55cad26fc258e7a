#pragma once

#include <string>

#include <log4cxx/logger.h>

/// Looks at the partition table of the card.
class FDisk
{
public:
    /// Counts the partitions of the disk that holds @p partitionPath.
    /// @param logger receives the errors
    /// @param partitionPath device path of one partition, such as "/dev/mmcblk0p1"
    /// @param linuxPartitions raised by one for each partition of type Linux (0x83)
    /// @param otherPartitions raised by one for each partition of another type
    /// @return 0; -1 when the disk cannot be found or opened; -2 when its partition table cannot be
    /// read
    static int getNumberOfPartitions(log4cxx::LoggerPtr logger, const std::string& partitionPath,
                                     int& linuxPartitions, int& otherPartitions);

    /// The device path of the whole disk that holds the partition; empty when it cannot be found.
    static std::string getDiskDevicePath(const std::string& partitionPath);
};
