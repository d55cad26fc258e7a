#pragma once

#include <QString>
#include <QVector>

namespace sdcardctl {

/// One finding of a check of a media configuration.
struct ConfigFinding
{
    enum Severity
    {
        Error,  ///< the service refuses the file
        Warning ///< the service accepts it, but it is probably a mistake
    };
    Severity severity;
    int line;   ///< of the element, from 1; 0 if the finding has no place in the text
    int column; ///< in characters, from 1
    QString message;
};

/// Checks a media configuration. Reports an error if and only if the service refuses the file.
/// @return all findings in the order of the text
QVector<ConfigFinding> checkConfig(const QString& file);

} // namespace sdcardctl
