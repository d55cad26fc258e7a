#include "InterruptedBacktrace.h"

#ifdef __arm__

#include <array>

// Calls backtrace() from a frame whose unwind opcode restores r4 to r15 from the stack, so that the
// unwinder continues with the interrupted code. libunwind needs no assembly, but its look-up of
// unwind tables takes a lock of the dynamic loader. The crashed thread may own that lock.
extern "C" int tavoutilBacktraceFrom(const unsigned long* registers, void** frames, int maxFrames);
asm(R"(
    .text
    .syntax unified
    .thumb
    .thumb_func
    .hidden tavoutilBacktraceFrom
    .global tavoutilBacktraceFrom
    .type tavoutilBacktraceFrom, %function
tavoutilBacktraceFrom:
    .fnstart
    push {r4, lr}
    sub sp, sp, #48
    mov r4, sp
    movs r3, #12
1:  ldr r12, [r0], #4
    str r12, [r4], #4
    subs r3, r3, #1
    bne 1b
    mov r0, r1
    mov r1, r2
    bl backtrace
    add sp, sp, #48
    pop {r4, pc}
    .unwind_raw 48, 0x8f, 0xff
    .fnend
    .size tavoutilBacktraceFrom, . - tavoutilBacktraceFrom
)");

int interruptedBacktrace(const mcontext_t& interrupted, void** frames, int maxFrames)
{
    // The unwinder expects a return address and looks up the instruction before it.
    constexpr unsigned long kStep = 2;
    const std::array<unsigned long, 12> registers{
        interrupted.arm_r4, interrupted.arm_r5, interrupted.arm_r6,  interrupted.arm_r7,
        interrupted.arm_r8, interrupted.arm_r9, interrupted.arm_r10, interrupted.arm_fp,
        interrupted.arm_ip, interrupted.arm_sp, interrupted.arm_lr,  interrupted.arm_pc + kStep};
    return tavoutilBacktraceFrom(registers.data(), frames, maxFrames);
}

#endif
