#include "SDCardFileInfo.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include <QList>

#include <fcntl.h>
#include <libgen.h>
#include <unistd.h>

#include <tavoutil/SystemError.h>
#include <tavoutil/TrackLog.h>

namespace {

constexpr auto kTrackSource = "SDCardFileInfo";

constexpr std::size_t kMaxWorkingDirectory = 4096;
constexpr qint64 kNanosecondsPerSecond = 1000000000;

// Looked up once, because there are many objects.
const log4cxx::LoggerPtr& recordLogger()
{
    static const log4cxx::LoggerPtr instance = log4cxx::Logger::getLogger("SDCardFileInfo");
    return instance;
}

QByteArray normalised(const QByteArray& absolutePath)
{
    QByteArray result;
    for (const QByteArray& component : absolutePath.split('/')) {
        if (component.isEmpty() || component == ".") {
            continue;
        }
        if (component == "..") {
            result.truncate(result.lastIndexOf('/') < 0 ? 0 : result.lastIndexOf('/'));
        } else {
            result += '/' + component;
        }
    }
    return result.isEmpty() ? QByteArray("/") : result;
}

} // namespace

QByteArray SDCardFileInfo::absolutePath(const QByteArray& path)
{
    if (path.startsWith('/')) {
        return normalised(path);
    }
    std::array<char, kMaxWorkingDirectory> workingDirectory{};
    if (::getcwd(workingDirectory.data(), workingDirectory.size()) == nullptr) {
        return {};
    }
    return normalised(QByteArray(workingDirectory.data()) + "/" + path);
}

SDCardFileInfo::SDCardFileInfo(const QByteArray& path)
    : TrackObject(recordLogger()), mPath(absolutePath(path))
{
    if (mPath.isEmpty()) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_FATAL(logger(), "SDCardFileInfo() Cannot get current working directory:" + why);
        return;
    }
    if (::fstatat(AT_FDCWD, mPath.constData(), &mStatus, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) ==
        0) {
        mValid = true;
    } else {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR(logger(), "SDCardFileInfo() fstatat() failed for " + mPath + ": " + why);
    }
}

const char* SDCardFileInfo::baseName() const
{
    if (!mBaseName.isEmpty() || mPath.endsWith('/')) {
        return mBaseName.constData();
    }
    const std::unique_ptr<char, decltype(&std::free)> copy(::strdup(mPath.constData()), &std::free);
    if (!copy) {
        const QByteArray why = tavoutil::systemErrorText(errno);
        TRACK_ERROR(logger(), "baseName(): strdup: " + why);
        return mBaseName.constData();
    }
    mBaseName = ::basename(copy.get());
    return mBaseName.constData();
}

qint64 SDCardFileInfo::changeTime() const
{
    return changeTimeOf(mStatus);
}

qint64 changeTimeOf(const struct stat& status)
{
    qint64 time = 0;
    if (__builtin_mul_overflow(qint64{status.st_ctim.tv_sec}, kNanosecondsPerSecond, &time) ||
        __builtin_add_overflow(time, qint64{status.st_ctim.tv_nsec}, &time)) {
        // ext4 allows years beyond the range of 64-bit nanoseconds, 1677 to 2262.
        return status.st_ctim.tv_sec < 0 ? std::numeric_limits<qint64>::min()
                                         : std::numeric_limits<qint64>::max();
    }
    return time;
}
