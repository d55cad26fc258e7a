#pragma once

#include <memory>

#include <QDBusConnection>
#include <QString>

class TestProcess;

/// Stands in for the system bus.
class TestBus
{
public:
    /// Starts the bus. It ends with this object, at the latest with the test's process.
    TestBus();
    ~TestBus();
    TestBus(const TestBus&) = delete;
    TestBus(TestBus&&) = delete;
    TestBus& operator=(const TestBus&) = delete;
    TestBus& operator=(TestBus&&) = delete;

    QString address() const { return mAddress; }
    /// The connection with the name @p name; opened if it does not exist.
    QDBusConnection connection(const QString& name) const;

private:
    std::unique_ptr<TestProcess> mDaemon;
    QString mAddress;
};
