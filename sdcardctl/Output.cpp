#include "Output.h"

#include <array>
#include <cerrno>
#include <cmath>

#include <QJsonDocument>

#include <unistd.h>

namespace sdcardctl {

namespace {

constexpr std::array<const char*, 4> kColourCodes{"32", "33", "31", "36"};
constexpr qreal kPercent = 100;
constexpr int kUnit = 1024;

} // namespace

Output::Output(QTextStream& results, QTextStream& notes, bool isJson, bool isColoured)
    : mResults(results), mNotes(notes), mIsJson(isJson), mIsColoured(isColoured)
{}

bool Output::coloursWanted()
{
    return ::isatty(STDOUT_FILENO) == 1 && qEnvironmentVariableIsEmpty("NO_COLOR") &&
           qgetenv("TERM") != "dumb";
}

QString Output::coloured(Colour colour, const QString& text) const
{
    if (!mIsColoured) {
        return text;
    }
    const char* const code = kColourCodes.at(static_cast<std::size_t>(colour));
    return QStringLiteral("\033[") + QLatin1String(code) + "m" + text + "\033[0m";
}

void Output::line(const QString& text)
{
    errno = 0;
    mResults << text << Qt::endl;
    if (isBroken() && mWriteError.isEmpty()) {
        mWriteError = qt_error_string(errno);
    }
}

void Output::line(const QJsonObject& object)
{
    line(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
}

void Output::note(const QString& text)
{
    mNotes << "sdcardctl: " << text << Qt::endl;
}

ExitStatus Output::fail(const Failure& failure)
{
    note(failure.message);
    return failure.status;
}

ExitStatus Output::finish(ExitStatus status)
{
    return isBroken() ? fail({ExitStatus::OutputFailed,
                              "The output cannot be written: " + mWriteError + "."})
                      : status;
}

QString valueText(const QString& name, int value)
{
    return name.isEmpty() ? "unrecognised (" + QString::number(value) + ")" : name;
}

QString bytesText(qint64 bytes)
{
    if (std::abs(bytes) < kUnit) {
        return QString::number(bytes) + " B";
    }
    constexpr std::array<const char*, 6> kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    // Takes the next unit if rounding would show 1024.0 of this one.
    constexpr qreal kNextUnit = kUnit - 0.05;
    qreal value = static_cast<qreal>(bytes) / kUnit;
    std::size_t unit = 0;
    while (std::abs(value) >= kNextUnit && unit + 1 < kUnits.size()) {
        value /= kUnit;
        ++unit;
    }
    return QString::number(value, 'f', 1) + " " + QLatin1String(kUnits.at(unit));
}

QString percentText(qreal share)
{
    QString number = QString::number(share * kPercent, 'f', 2);
    while (number.endsWith('0') && number.contains('.')) {
        number.chop(1);
    }
    if (number.endsWith('.')) {
        number.chop(1);
    }
    return number + " %";
}

QString barText(qreal share, int width)
{
    int filled = 0;
    if (share >= 1) {
        filled = width;
    } else if (share > 0) {
        filled = static_cast<int>(std::ceil(share * width));
    }
    return "[" + QString(filled, '#') + QString(width - filled, '.') + "]";
}

} // namespace sdcardctl
