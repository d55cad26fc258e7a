#pragma once

#include <csignal>

namespace tavoutil {

/// Gives the calling thread a stack of its own for signal handlers, so that a stack overflow in
/// this thread is reported too (installSignalHandler()). Put one at the top of a thread's function;
/// it is destroyed in the same thread, which then has its earlier alternate stack again.
class AlternateSignalStack
{
public:
    AlternateSignalStack();
    ~AlternateSignalStack();

    AlternateSignalStack(const AlternateSignalStack&) = delete;
    AlternateSignalStack(AlternateSignalStack&&) = delete;
    AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;
    AlternateSignalStack& operator=(AlternateSignalStack&&) = delete;

    /// False where memory is short; the thread then runs without. errno of the constructor says
    /// why.
    bool isInstalled() const { return mInstalled; }

private:
    void* mMemory;
    stack_t mPrevious{};
    bool mInstalled = false;
};

} // namespace tavoutil
