#pragma once

#include <memory>

#include <QDBusConnection>
#include <QString>

class TestProcess;

/// Stands in for the system bus.
class TestBus
{
public:
    /// Starts it; it ends with this object, and with the test's process at the latest.
    TestBus();
    ~TestBus();
    TestBus(const TestBus&) = delete;
    TestBus(TestBus&&) = delete;
    TestBus& operator=(const TestBus&) = delete;
    TestBus& operator=(TestBus&&) = delete;

    QString address() const { return mAddress; }
    /// The connection named @p name, opened where there is none by that name.
    QDBusConnection connection(const QString& name) const;

private:
    std::unique_ptr<TestProcess> mDaemon;
    QString mAddress;
};
