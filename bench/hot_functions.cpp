// The functions that run once for each file, line of the mount table or poll.

#include <string>

#include <benchmark/benchmark.h>

#include <QFile>
#include <QTemporaryDir>

#include <log4cxx/logger.h>

#include "DirectoryScan.h"
#include "MountedFileSystem.h"
#include "SDCardFileInfo.h"
#include "sdcard.h"

namespace {

const CancellationSource kRuns;

void scanOneDirectory(benchmark::State& state)
{
    const QTemporaryDir dir;
    for (int i = 0; i < state.range(0); ++i) {
        QFile file(dir.filePath(QStringLiteral("record-%1.csv").arg(i, 8)));
        if (!file.open(QIODevice::WriteOnly)) {
            state.SkipWithError("cannot create the files");
            return;
        }
    }
    const QByteArray path = QFile::encodeName(dir.path());
    const auto keep = static_cast<DirectoryScan::Keep>(state.range(1));
    for ([[maybe_unused]] auto iteration : state) {
        DirectoryScan scan(log4cxx::Logger::getRootLogger(), kRuns.token());
        scan.run(path, DirectoryScan::Extent::WholeTree, keep);
        benchmark::DoNotOptimize(scan.totalSize());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(scanOneDirectory)
    ->ArgNames({"files", "kept"})
    ->ArgsProduct({{100, 10000},
                   {static_cast<int>(DirectoryScan::Keep::SizesOnly),
                    static_cast<int>(DirectoryScan::Keep::Files)}});

void recordOfOneFile(benchmark::State& state)
{
    for ([[maybe_unused]] auto iteration : state) {
        const SDCardFileInfo info("/usr/bin/env");
        benchmark::DoNotOptimize(info.changeTime());
    }
}
BENCHMARK(recordOfOneFile);

void isMounted(benchmark::State& state)
{
    const MountedFileSystem card(QStringLiteral("/media/sdcard"));
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(card.isMounted());
    }
}
BENCHMARK(isMounted);

void mountState(benchmark::State& state)
{
    const QString mountPoint = QStringLiteral("/media/sdcard");
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(
            Sdcard::getMountState(log4cxx::Logger::getRootLogger(), mountPoint));
    }
}
BENCHMARK(mountState);

} // namespace

BENCHMARK_MAIN();
