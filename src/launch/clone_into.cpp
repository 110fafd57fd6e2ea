// New processes that share this one's memory, made without the C library so that a new process can make one
// too (the intermediate process of a detached launch must not write the launching thread's errno): clone, and
// clone3 with CLONE_INTO_CGROUP, which makes the process directly inside a cgroup v2 group (Linux 5.7 and
// later), so that neither the process nor anything it starts ever runs outside the group, not even between
// its creation and a move. A plain system call can't do: the new process resumes right after the syscall
// instruction on its own stack, with no frame to return into. A trampoline per call and architecture makes
// the call and, in the new process, calls the entry function and exits with its result.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sched.h>
#include <sys/syscall.h>

#include "launch/launch_internal.h"

namespace {
// The kernel's struct clone_args as far as `cgroup` (CLONE_ARGS_SIZE_VER2). Its layout is part of the ABI,
// spelled out here so that the build doesn't depend on the kernel headers' age.
struct CloneArgs {
    uint64_t flags;
    uint64_t pidfd;
    uint64_t childTid;
    uint64_t parentTid;
    uint64_t exitSignal;
    uint64_t stack; // the lowest address; the kernel starts the new process at stack + stackSize
    uint64_t stackSize;
    uint64_t tls;
    uint64_t setTid;
    uint64_t setTidSize;
    uint64_t cgroup;
};
static_assert(sizeof(CloneArgs) == 88, "clone_args up to cgroup is 88 bytes");

constexpr uint64_t kCloneIntoCgroup = 0x200000000ULL;
} // namespace

#if defined(SYS_clone3)
static_assert(SYS_clone3 == 435, "the trampolines use clone3's number, the same on x86-64 and AArch64");
#endif
#if defined(__x86_64__)
static_assert(SYS_clone == 56, "the x86-64 trampoline uses clone's number");
#elif defined(__aarch64__)
static_assert(SYS_clone == 220, "the AArch64 trampoline uses clone's number");
#endif

// clone3(args, size). In the calling process: the new process's PID, or -errno. In the new process (sp at the
// stack's top, every other register as the caller had it): main(argument), then exit with its result.
extern "C" __attribute__((visibility("hidden"))) long quillon_clone3(CloneArgs* args, size_t size,
                                                                     int (*main)(void*), void* argument);
// clone(flags, stackTop) with no thread-ID or TLS arguments. In the calling process: the new process's PID,
// or -errno. In the new process: main(argument), then exit with its result. main and argument travel on the
// new stack, from which the new process takes them.
extern "C" __attribute__((visibility("hidden"))) long quillon_clone(unsigned long flags, void* stackTop,
                                                                    int (*main)(void*), void* argument);

#if defined(__x86_64__)
// main and argument go to r8 and r9, which the system call keeps (it clobbers only rax, rcx and r11) and the
// new process receives as they were. The new process marks the end of the call chain for unwinders (no
// return address, rbp 0) and aligns the stack to 16 bytes before the call, as the ABI asks.
asm(R"(
    .pushsection .text
    .globl quillon_clone3
    .hidden quillon_clone3
    .type quillon_clone3, @function
    .p2align 4
quillon_clone3:
    .cfi_startproc
)"
#if defined(__CET__)
    "    endbr64\n"
#endif
    R"(
    mov %rdx, %r8
    mov %rcx, %r9
    mov $435, %eax
    syscall
    test %rax, %rax
    jz 1f
    ret
1:
    .cfi_undefined rip
    xor %ebp, %ebp
    and $-16, %rsp
    mov %r9, %rdi
    call *%r8
    mov %eax, %edi
    mov $60, %eax
    syscall
    hlt
    .cfi_endproc
    .size quillon_clone3, . - quillon_clone3
    .popsection
)");
// rdi flags, rsi the stack's top, rdx main, rcx argument. The top is aligned down to 16 bytes and main and
// argument stored just below it; the new process pops them, which leaves its stack aligned for the call.
asm(R"(
    .pushsection .text
    .globl quillon_clone
    .hidden quillon_clone
    .type quillon_clone, @function
    .p2align 4
quillon_clone:
    .cfi_startproc
)"
#if defined(__CET__)
    "    endbr64\n"
#endif
    R"(
    and $-16, %rsi
    sub $16, %rsi
    mov %rdx, (%rsi)
    mov %rcx, 8(%rsi)
    xor %edx, %edx
    xor %r10d, %r10d
    xor %r8d, %r8d
    mov $56, %eax
    syscall
    test %rax, %rax
    jz 1f
    ret
1:
    .cfi_undefined rip
    xor %ebp, %ebp
    pop %rax
    pop %rdi
    call *%rax
    mov %eax, %edi
    mov $60, %eax
    syscall
    hlt
    .cfi_endproc
    .size quillon_clone, . - quillon_clone
    .popsection
)");
#elif defined(__aarch64__)
// The system call changes only x0, so main and argument stay in x2 and x3, in the new process as well. The
// new process clears the frame pointer and link register for unwinders and aligns sp to 16 bytes, which the
// architecture checks on every sp-relative access.
asm(R"(
    .pushsection .text
    .globl quillon_clone3
    .hidden quillon_clone3
    .type quillon_clone3, %function
    .p2align 2
quillon_clone3:
    .cfi_startproc
)"
#if defined(__ARM_FEATURE_BTI_DEFAULT)
    "    hint #34\n" // bti c
#endif
    R"(
    mov x8, #435
    svc #0
    cbz x0, 1f
    ret
1:
    .cfi_undefined x30
    mov x29, xzr
    mov x30, xzr
    mov x9, sp
    and sp, x9, #-16
    mov x0, x3
    blr x2
    mov x8, #93
    svc #0
    brk #0
    .cfi_endproc
    .size quillon_clone3, . - quillon_clone3
    .popsection
)");
// x0 flags, x1 the stack's top, x2 main, x3 argument. The top is aligned down to 16 bytes and main and
// argument stored just below it; the new process loads them and lifts sp back to the aligned top.
asm(R"(
    .pushsection .text
    .globl quillon_clone
    .hidden quillon_clone
    .type quillon_clone, %function
    .p2align 2
quillon_clone:
    .cfi_startproc
)"
#if defined(__ARM_FEATURE_BTI_DEFAULT)
    "    hint #34\n" // bti c
#endif
    R"(
    and x1, x1, #-16
    stp x2, x3, [x1, #-16]!
    mov x2, xzr
    mov x3, xzr
    mov x4, xzr
    mov x8, #220
    svc #0
    cbz x0, 1f
    ret
1:
    .cfi_undefined x30
    mov x29, xzr
    mov x30, xzr
    ldp x9, x0, [sp], #16
    blr x9
    mov x8, #93
    svc #0
    brk #0
    .cfi_endproc
    .size quillon_clone, . - quillon_clone
    .popsection
)");
#else
#error "the clone trampolines are written for x86_64 and aarch64"
#endif

extern "C" NEW_PROCESS_CODE long clone_vm_raw(int (*main)(void*), void* argument, void* stackTop) {
    return quillon_clone(CLONE_VM | SIGCHLD, stackTop, main, argument);
}

extern "C" NEW_PROCESS_CODE long clone_into_cgroup_raw(int (*main)(void*), void* argument, void* stackLow,
                                                       size_t stackSize, int cgroupFd) {
    // A negative number is no descriptor: EBADF, as for a closed one (the kernel would say EINVAL).
    if (cgroupFd < 0) return -EBADF;
    CloneArgs args = {};
    args.flags = CLONE_VM | kCloneIntoCgroup;
    args.exitSignal = SIGCHLD;
    args.stack = reinterpret_cast<uintptr_t>(stackLow);
    args.stackSize = stackSize;
    args.cgroup = static_cast<uint64_t>(cgroupFd);
    return quillon_clone3(&args, sizeof args, main, argument);
}

extern "C" pid_t clone_into_cgroup(int (*main)(void*), void* argument, void* stackLow, size_t stackSize,
                                   int cgroupFd) {
    long result = clone_into_cgroup_raw(main, argument, stackLow, stackSize, cgroupFd);
    if (result < 0) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return static_cast<pid_t>(result);
}
