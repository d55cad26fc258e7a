#pragma once

#include <QDateTime>
#include <QSignalTransition>

class QObject;

/// Distinguishes the removal of a card from the echo of a format. After a format the kernel
/// announces the partition again, which arrives here as a removal.
class FormatEcho
{
public:
    /// Records that a file system was created at @p birth; a null time clears the record.
    void setBirth(const QDateTime& birth) { mBirth = birth; }
    /// Classifies a removal that arrives now, and clears the record.
    /// @return whether it is the echo of a format: 1 to 2999 ms after the birth
    bool takeRemoval();
    /// Whether the last removal was an echo.
    bool isEcho() const { return mIsEcho; }

private:
    QDateTime mBirth;
    bool mIsEcho = false;
};

/// The transition on a removal. An echo does not trigger it.
class RemovalTransition : public QSignalTransition
{
public:
    RemovalTransition(const QObject* sender, const char* signal, const FormatEcho& echo)
        : QSignalTransition(sender, signal), mEcho(echo)
    {}

protected:
    bool eventTest(QEvent* event) override
    {
        return QSignalTransition::eventTest(event) && !mEcho.isEcho();
    }

private:
    const FormatEcho& mEcho;
};
