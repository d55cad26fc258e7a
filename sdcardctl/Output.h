#pragma once

#include <QJsonObject>
#include <QString>
#include <QTextStream>

#include "ExitStatus.h"

namespace sdcardctl {

enum class Colour
{
    Good,
    Busy,
    Bad,
    Event
};

/// Where a command writes to and in what form.
class Output
{
public:
    /// @param isJson whether results are for programs
    Output(QTextStream& results, QTextStream& notes, bool isJson, bool isColoured);

    /// Whether standard output shows colours: on a terminal that knows them, unless the environment
    /// variable NO_COLOR is set and not empty.
    static bool coloursWanted();

    bool isJson() const { return mIsJson; }
    /// @p text in a colour, or as it is where colours are not wanted.
    QString coloured(Colour colour, const QString& text) const;

    /// Writes one line of results at once.
    void line(const QString& text);
    void line(const QJsonObject& object);
    /// Whether a line of results could not be written.
    bool isBroken() const { return mResults.status() != QTextStream::Ok; }
    /// Writes a line about the work itself to standard error.
    void note(const QString& text);
    /// Notes why a command failed.
    /// @return the failure's status
    ExitStatus fail(const Failure& failure);
    /// Notes whether the results could not be written.
    /// @return @p status, or in that case OutputFailed
    ExitStatus finish(ExitStatus status);

private:
    QTextStream& mResults;
    QString mWriteError;
    QTextStream& mNotes;
    bool mIsJson;
    bool mIsColoured;
};

/// A value of an enumeration by its name; the number where it has none.
QString valueText(const QString& name, int value);
/// Bytes for people, in binary units: "512 B", "1.4 MiB".
QString bytesText(qint64 bytes);
/// A share (1.0 is all) in percent with at most two decimals: "12.5 %".
QString percentText(qreal share);
/// How much of something is used, @p width characters between brackets. All that exceeds it is
/// shown as full; anything above nothing as one character at least.
QString barText(qreal share, int width);

} // namespace sdcardctl
