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
        Warning ///< the service takes it, but it cannot be what was meant
    };
    Severity severity;
    int line;   ///< of the element, from 1; 0 where the finding has no place in the text
    int column; ///< in characters, from 1
    QString message;
};

/// Checks a media configuration. Errors are found by the service's own reading, which would end at
/// the first of them: there is an error if and only if the service refuses the file.
/// @return all findings in the order of the text
QVector<ConfigFinding> checkConfig(const QString& file);

} // namespace sdcardctl
