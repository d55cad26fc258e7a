#include "LedRecorder.h"

#include <cstring>

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TestDevice.h"

namespace {

const QString kLeds = QStringLiteral("/opt/tavo/tavodev/mmc1_leds");
constexpr std::array<const char*, 2> kColours{"red", "green"};
constexpr std::array<const char*, 4> kFileNames{"brightness", "trigger", "delay_on", "delay_off"};
// No value is a prefix of another, so that consecutive values can be distinguished.
constexpr std::array<const char*, 6> kValues{"255", "0", "100", "500", "timer", "mmc0"};
constexpr mode_t kFileMode = 0644;

} // namespace

const QStringList LedWrites::kOff{"green brightness=0", "red brightness=0"};
const QStringList LedWrites::kMounted{"green brightness=0", "red brightness=255",
                                      "red trigger=mmc0"};
const QStringList LedWrites::kBusy{"green brightness=0", "red trigger=timer", "red delay_on=100",
                                   "red delay_off=100"};
const QStringList LedWrites::kUnmounted{"red brightness=0", "green brightness=255"};
const QStringList LedWrites::kNotMountable{"green trigger=timer", "red brightness=0"};

// The files are pipes: no write is lost, and the notifications show the order.
LedRecorder::LedRecorder() : mWatcher(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    remove();
    std::size_t index = 0;
    for (std::size_t colour = 0; colour < kColours.size(); ++colour) {
        const QString directory = kLeds + "/mmc-" + kColours[colour];
        QDir().mkpath(directory);
        for (const char* const name : kFileNames) {
            const QByteArray path = QFile::encodeName(directory + "/" + name);
            File& file = mFiles[index++];
            file.name = QString::fromLatin1(kColours[colour]) + " " + name;
            if (::mkfifo(path.constData(), kFileMode) != 0) {
                qFatal("cannot create %s", path.constData());
            }
            file.fd = ::open(path.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        }
        // Two kinds of events alternate, because equal consecutive ones would be merged. Closing is
        // not one of them: a program that starts at that moment may briefly have the file open.
        mDirectories[colour] = ::inotify_add_watch(
            mWatcher, QFile::encodeName(directory).constData(), IN_OPEN | IN_MODIFY);
        if (mDirectories[colour] < 0) {
            qFatal("cannot watch %s", qPrintable(directory));
        }
    }
}

LedRecorder::~LedRecorder()
{
    remove();
    for (const File& file : mFiles) {
        ::close(file.fd);
    }
    ::close(mWatcher);
}

void LedRecorder::remove()
{
    TestDevice::remove(kLeds);
}

QString LedRecorder::nextValue(File& file)
{
    std::array<char, 4096> chunk{};
    for (ssize_t got = 0; (got = ::read(file.fd, chunk.data(), chunk.size())) > 0;) {
        file.unread.append(chunk.data(), static_cast<int>(got));
    }
    for (const char* const value : kValues) {
        if (file.unread.startsWith(value)) {
            file.unread.remove(0, static_cast<int>(std::strlen(value)));
            return QString::fromLatin1(value);
        }
    }
    return {};
}

QStringList LedRecorder::take()
{
    QStringList writes;
    alignas(inotify_event) std::array<char, 4096> events{};
    for (ssize_t got = 0; (got = ::read(mWatcher, events.data(), events.size())) > 0;) {
        for (ssize_t at = 0; at < got;) {
            inotify_event event{};
            std::memcpy(&event, &events.at(static_cast<std::size_t>(at)), sizeof(event));
            const QString name =
                QString::fromLatin1(&events.at(static_cast<std::size_t>(at) + sizeof(event)));
            at += static_cast<ssize_t>(sizeof(event)) + static_cast<ssize_t>(event.len);
            if ((event.mask & IN_OPEN) == 0) {
                continue;
            }
            const QString colour =
                QString::fromLatin1(kColours.at(event.wd == mDirectories[0] ? 0 : 1));
            for (File& file : mFiles) {
                if (file.name == colour + " " + name) {
                    writes.append(file.name + "=" + nextValue(file));
                }
            }
        }
    }
    return writes;
}
