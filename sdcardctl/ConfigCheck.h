#pragma once

#include <QString>
#include <QVector>

namespace sdcardctl {

/// One thing that a check of a media configuration found.
struct ConfigFinding
{
    enum Severity
    {
        Error,  ///< the service refuses the file
        Warning ///< the service accepts it, but it is probably a mistake
    };
    Severity severity;
    int line;   ///< of the element, from 1; 0 where the finding has no place in the text
    int column; ///< in characters, from 1
    QString message;
};

/// Checks a media configuration. There is an error if and only if the service refuses the file.
/// @return all findings in the order of the text
QVector<ConfigFinding> checkConfig(const QString& file);

} // namespace sdcardctl
