#pragma once

#include <array>

#include <QByteArray>
#include <QString>
#include <QStringList>

/// The writes of each of the service's patterns, as LedRecorder returns them.
namespace LedWrites {

extern const QStringList kOff;
extern const QStringList kMounted;
extern const QStringList kBusy;
extern const QStringList kUnmounted;
extern const QStringList kNotMountable;

} // namespace LedWrites

/// Stands in for the two LEDs: their files record all writes in order.
class LedRecorder
{
public:
    /// Creates the files; the destructor removes them.
    LedRecorder();
    ~LedRecorder();
    LedRecorder(const LedRecorder&) = delete;
    LedRecorder(LedRecorder&&) = delete;
    LedRecorder& operator=(const LedRecorder&) = delete;
    LedRecorder& operator=(LedRecorder&&) = delete;

    /// The writes since the last take(), as "red trigger=timer". A file that was opened without a
    /// write, or written with an unknown value, shows as "red trigger=".
    QStringList take();
    /// Removes the LEDs from the board.
    void remove();

private:
    struct File
    {
        QString name; // "red trigger"
        int fd = -1;
        QByteArray unread;
    };

    QString nextValue(File& file);

    static constexpr int kFilesPerLed = 4;
    int mWatcher = -1;
    std::array<int, 2> mDirectories{};
    std::array<File, 2 * kFilesPerLed> mFiles;
};
