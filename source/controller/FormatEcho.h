#pragma once

#include <QDateTime>
#include <QSignalTransition>

class QObject;

/// Separates the removal of a card from the echo of a format: a new file system makes the kernel
/// announce the partition anew, which arrives here as a removal.
class FormatEcho
{
public:
    /// A file system was created at @p birth; a null time forgets the last one.
    void setBirth(const QDateTime& birth) { mBirth = birth; }
    /// Judges a removal that arrives now, and forgets the birth.
    /// @return whether it is the echo of a format: 1 to 2999 ms after the birth
    bool takeRemoval();
    /// The judgement on the last removal.
    bool isEcho() const { return mIsEcho; }

private:
    QDateTime mBirth;
    bool mIsEcho = false;
};

/// The transition on a removal, which an echo does not trigger.
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
