#pragma once

#include <csignal>

namespace tavoutil {

/// Gives the calling thread its own stack for signal handlers, so that installSignalHandler() also
/// reports a stack overflow in this thread. Create one at the top of a thread's function. Its
/// destructor, on the same thread, restores the thread's earlier alternate stack.
class AlternateSignalStack
{
public:
    AlternateSignalStack();
    ~AlternateSignalStack();

    AlternateSignalStack(const AlternateSignalStack&) = delete;
    AlternateSignalStack(AlternateSignalStack&&) = delete;
    AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;
    AlternateSignalStack& operator=(AlternateSignalStack&&) = delete;

    /// False if memory is short; the thread then runs without the stack, and errno says why right
    /// after the construction.
    bool isInstalled() const { return mInstalled; }

private:
    void* mMemory;
    stack_t mPrevious{};
    bool mInstalled = false;
};

} // namespace tavoutil
