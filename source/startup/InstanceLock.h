#pragma once

/// Prevents two instances of the service from using one card. The kernel releases the lock when the
/// process ends, however it ends.
class InstanceLock
{
public:
    InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    ~InstanceLock();

    /// Whether another process has the lock. If the lock file cannot be created, the lock counts as
    /// free.
    bool isTaken() const { return mIsTaken; }

private:
    int mFd;
    bool mIsTaken = false;
};
