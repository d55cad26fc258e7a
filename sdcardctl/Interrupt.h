#pragma once

#include <memory>

#include <QObject>
#include <QSocketNotifier>

namespace sdcardctl {

/// Turns SIGINT (Ctrl-C) and SIGTERM into a Qt signal. One object at a time.
class Interrupt : public QObject
{
    Q_OBJECT

public:
    explicit Interrupt(QObject* parent = nullptr);
    Interrupt(const Interrupt&) = delete;
    Interrupt(Interrupt&&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;
    Interrupt& operator=(Interrupt&&) = delete;
    /// Restores the signals' default actions.
    ~Interrupt() override;

Q_SIGNALS:
    void requested();

private:
    int mReadEnd = -1;
    std::unique_ptr<QSocketNotifier> mNotifier;
};

} // namespace sdcardctl
