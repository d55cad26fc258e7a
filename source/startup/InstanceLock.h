#pragma once

/// Keeps two instances of the service from one card. The kernel releases it when the process ends,
/// however it ends.
class InstanceLock
{
public:
    InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    ~InstanceLock();

    /// Whether another process has the lock. A lock file that cannot be made counts as free.
    bool isTaken() const { return mIsTaken; }

private:
    int mFd;
    bool mIsTaken = false;
};
