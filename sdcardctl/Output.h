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

/// The destination and the form of a command's output.
class Output
{
public:
    /// @param isJson whether results are for programs
    Output(QTextStream& results, QTextStream& notes, bool isJson, bool isColoured);

    /// Whether standard output shows colours: on a terminal with colours, unless the environment
    /// variable NO_COLOR is set and not empty.
    static bool coloursWanted();

    bool isJson() const { return mIsJson; }
    /// @p text in a colour, or unchanged without colours.
    QString coloured(Colour colour, const QString& text) const;

    /// Writes one line of results at once.
    void line(const QString& text);
    void line(const QJsonObject& object);
    /// Whether writing a line of results failed.
    bool isBroken() const { return mResults.status() != QTextStream::Ok; }
    /// Writes a line about the work itself to standard error.
    void note(const QString& text);
    /// Prints why a command failed.
    /// @return the failure's status
    ExitStatus fail(const Failure& failure);
    /// Checks whether all results were written.
    /// @return @p status, or OutputFailed
    ExitStatus finish(ExitStatus status);

private:
    QTextStream& mResults;
    QString mWriteError;
    QTextStream& mNotes;
    bool mIsJson;
    bool mIsColoured;
};

/// The name of an enumeration's value; its number if it has no name.
QString valueText(const QString& name, int value);
/// Bytes for people, in binary units: "512 B", "1.4 MiB".
QString bytesText(qint64 bytes);
/// A share (1.0 is all) in percent with at most two decimals: "12.5 %".
QString percentText(qreal share);
/// A bar in brackets, @p width characters long. A share above 1 shows as full; any share above 0
/// fills at least one character.
QString barText(qreal share, int width);

} // namespace sdcardctl
