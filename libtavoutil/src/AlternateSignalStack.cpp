#include <tavoutil/AlternateSignalStack.h>

#include <cstddef>

#include <sys/mman.h>

namespace tavoutil {

namespace {

constexpr std::size_t kSize = std::size_t{64} * 1024;

} // namespace

AlternateSignalStack::AlternateSignalStack()
    // Mapped: its pages take no memory until a handler runs.
    : mMemory(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
{
    if (mMemory == MAP_FAILED) {
        return;
    }
    stack_t stack{};
    stack.ss_sp = mMemory;
    stack.ss_size = kSize;
    mInstalled = sigaltstack(&stack, &mPrevious) == 0;
}

AlternateSignalStack::~AlternateSignalStack()
{
    if (mInstalled) {
        sigaltstack(&mPrevious, nullptr);
    }
    if (mMemory != MAP_FAILED) {
        munmap(mMemory, kSize);
    }
}

} // namespace tavoutil
