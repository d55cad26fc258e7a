// Crashes as its first argument says: with installSignalHandler(), or without it if there is a
// second argument.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <QString>

#include <tavoutil/AlternateSignalStack.h>
#include <tavoutil/SignalHandler.h>

// The kernel, and not a sanitizer, must report the crashes.
#define CRASHES __attribute__((noinline, no_sanitize("address", "undefined", "thread"))) static

CRASHES void dereferenceNull()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

CRASHES void writeAboveNull()
{
    auto* volatile nowhere =
        reinterpret_cast<volatile char*>(0x123); // NOLINT(performance-no-int-to-ptr)
    *nowhere = 1;
}

CRASHES void divideByZero()
{
    volatile int one = 1;
    volatile int zero = 0;
    volatile int result = one / zero;
    static_cast<void>(result);
}

CRASHES void executeIllegalInstruction()
{
    __builtin_trap();
}

CRASHES void readBeyondMappedFile()
{
    std::FILE* const file = std::tmpfile();
    const void* const page = mmap(nullptr, 1, PROT_READ, MAP_SHARED, fileno(file), 0);
    volatile char byte = *static_cast<const volatile char*>(page);
    static_cast<void>(byte);
}

CRASHES int overflowStack(const volatile int* caller)
{
    volatile int frame[1024]; // NOLINT(modernize-avoid-c-arrays)
    frame[0] = caller == nullptr ? 0 : caller[0] + 1;
    return frame[0] < 0 ? 0 : overflowStack(frame) + frame[0];
}

static void overflowStackWithAlternateStack()
{
    const tavoutil::AlternateSignalStack alternateStack;
    overflowStack(nullptr);
}

static void waitForSignal()
{
    constexpr std::string_view kReady = "ready\n";
    if (write(STDOUT_FILENO, kReady.data(), kReady.size()) < 0) {
        return;
    }
    for (;;) {
        pause();
    }
}

[[noreturn]] static void installWithoutFileDescriptors()
{
    constexpr rlimit kNone{0, 0};
    setrlimit(RLIMIT_NOFILE, &kNone);
    // The leak detector also needs file descriptors at a normal exit.
    std::_Exit(installSignalHandler("crash-test") == -1 ? EXIT_SUCCESS : EXIT_FAILURE);
}

static int crash(std::string_view kind)
{
    if (kind == "null") {
        dereferenceNull();
    } else if (kind == "address") {
        writeAboveNull();
    } else if (kind == "abort") {
        std::abort();
    } else if (kind == "division") {
        divideByZero();
    } else if (kind == "illegal") {
        executeIllegalInstruction();
    } else if (kind == "bus") {
        readBeyondMappedFile();
    } else if (kind == "overflow") {
        overflowStack(nullptr);
    } else if (kind == "thread") {
        std::thread(dereferenceNull).join();
    } else if (kind == "overflow in a thread") {
        std::thread(overflowStackWithAlternateStack).join();
    } else if (kind == "overflow in a bare thread") {
        std::thread(overflowStack, nullptr).join();
    } else if (kind == "all threads") {
        std::thread first(dereferenceNull);
        std::thread second(dereferenceNull);
        first.join();
        second.join();
    } else if (kind == "wait") {
        waitForSignal();
    }
    return EXIT_FAILURE;
}

int main(int argc, char* argv[])
{
    const std::string_view kind = argc > 1 ? argv[1] : "";
    if (kind == "no file descriptors") {
        installWithoutFileDescriptors();
    }
    if (argc == 2 && installSignalHandler("crash-test") != 0) {
        return EXIT_FAILURE;
    }
    return crash(kind);
}
