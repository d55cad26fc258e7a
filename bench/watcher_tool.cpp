// The capacity watcher as a command, to time it beside other commands:
//   watcher_tool size DIR            prints the size of all files in DIR, in bytes
//   watcher_tool enforce DIR BYTES   deletes the oldest files until DIR is below BYTES

#include <cstring>
#include <iostream>

#include <QByteArray>

#include "StorageCapacityWatcher.h"
#include "config.h"

int main(int argc, char* argv[])
{
    constexpr int kUsageError = 2;
    const ConfigHandler config;
    const StorageCapacityWatcher watcher(config);
    if (argc == 3 && std::strcmp(argv[1], "size") == 0) {
        std::cout << watcher.dirSize(argv[2]) << "\n";
        return 0;
    }
    bool isNumber = false;
    const qint64 limit = argc == 4 ? QByteArray(argv[3]).toLongLong(&isNumber) : 0;
    if (isNumber && std::strcmp(argv[1], "enforce") == 0) {
        watcher.ensureDirSizeSingle({argv[2], limit});
        return 0;
    }
    std::cerr << "usage: watcher_tool size DIR | enforce DIR BYTES\n";
    return kUsageError;
}
