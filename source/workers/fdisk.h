#pragma once

#include <string>

#include <log4cxx/logger.h>

/// Reads the partition table of the card.
class FDisk
{
public:
    /// Counts the partitions of the disk of @p partitionPath.
    /// @param logger receives the errors
    /// @param partitionPath device path of one partition, such as "/dev/mmcblk0p1"
    /// @param linuxPartitions raised by one for each partition of type Linux (0x83)
    /// @param otherPartitions raised by one for each partition of another type
    /// @return 0; -1 if the disk cannot be found or opened; -2 if its partition table cannot be
    /// read
    static int getNumberOfPartitions(log4cxx::LoggerPtr logger, const std::string& partitionPath,
                                     int& linuxPartitions, int& otherPartitions);

    /// The device path of the partition's whole disk; empty if it cannot be found.
    static std::string getDiskDevicePath(const std::string& partitionPath);
};
