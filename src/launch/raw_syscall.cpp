#include "launch/raw_syscall.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <ctime>

#include "runtime/support.h"

namespace {
THREADLESS_CODE long raw(long number, long a = 0, long b = 0, long c = 0, long d = 0) {
#if defined(__x86_64__)
    long result;
    register long r10 asm("r10") = d;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10)
                 : "rcx", "r11", "memory");
    return result;
#elif defined(__aarch64__)
    register long x8 asm("x8") = number;
    register long x0 asm("x0") = a;
    register long x1 asm("x1") = b;
    register long x2 asm("x2") = c;
    register long x3 asm("x3") = d;
    asm volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3) : "memory");
    return x0;
#else
#error "raw system calls are written for x86_64 and aarch64"
#endif
}

THREADLESS_CODE long as_long(const void* pointer) {
    return reinterpret_cast<long>(pointer);
}

// The kernel's struct sigaction, which differs from the C library's.
struct KernelSigaction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    unsigned long mask;
};
} // namespace

extern "C" {
NEW_PROCESS_CODE long sys_read(int fd, void* buffer, size_t size) {
    return raw(SYS_read, fd, as_long(buffer), static_cast<long>(size));
}
THREADLESS_CODE long sys_write(int fd, const void* buffer, size_t size) {
    return raw(SYS_write, fd, as_long(buffer), static_cast<long>(size));
}
NEW_PROCESS_CODE long sys_open(const char* path, int flags, mode_t mode) {
    return raw(SYS_openat, AT_FDCWD, as_long(path), flags, mode);
}
THREADLESS_CODE long sys_close(int fd) {
    return raw(SYS_close, fd);
}
NEW_PROCESS_CODE long sys_dup2(int from, int to) {
    if (from == to) return raw(SYS_fcntl, from, F_GETFD) < 0 ? -EBADF : to;
    return raw(SYS_dup3, from, to, 0);
}
NEW_PROCESS_CODE long sys_fcntl(int fd, int command, long argument) {
    return raw(SYS_fcntl, fd, command, argument);
}
THREADLESS_CODE long sys_close_range(unsigned first, unsigned last) {
    return raw(SYS_close_range, first, last, 0);
}
THREADLESS_CODE long sys_chdir(const char* path) {
    return raw(SYS_chdir, as_long(path));
}
NEW_PROCESS_CODE long sys_setpgid(pid_t pid, pid_t group) {
    return raw(SYS_setpgid, pid, group);
}
NEW_PROCESS_CODE long sys_umask(mode_t mask) {
    return raw(SYS_umask, mask);
}
NEW_PROCESS_CODE long sys_getpriority() {
    return raw(SYS_getpriority, PRIO_PROCESS, 0);
}
NEW_PROCESS_CODE long sys_setpriority(int nice) {
    return raw(SYS_setpriority, PRIO_PROCESS, 0, nice);
}
NEW_PROCESS_CODE long sys_setgroups(size_t count, const gid_t* groups) {
    return raw(SYS_setgroups, static_cast<long>(count), as_long(groups));
}
NEW_PROCESS_CODE long sys_setgid(gid_t gid) {
    return raw(SYS_setgid, gid);
}
NEW_PROCESS_CODE long sys_setuid(uid_t uid) {
    return raw(SYS_setuid, uid);
}
NEW_PROCESS_CODE long sys_getuid() {
    return raw(SYS_getuid);
}
NEW_PROCESS_CODE long sys_geteuid() {
    return raw(SYS_geteuid);
}
NEW_PROCESS_CODE long sys_getgid() {
    return raw(SYS_getgid);
}
NEW_PROCESS_CODE long sys_getegid() {
    return raw(SYS_getegid);
}
NEW_PROCESS_CODE long sys_getpid() {
    return raw(SYS_getpid);
}
NEW_PROCESS_CODE long sys_execve(const char* path, char* const* argv, char* const* envp) {
    return raw(SYS_execve, as_long(path), as_long(argv), as_long(envp));
}
THREADLESS_CODE void sys_exit(int status) {
    for (;;)
        raw(SYS_exit_group, status);
}
THREADLESS_CODE long sys_set_disposition(int signal, void (*disposition)(int), bool onlyIfCaught) {
    KernelSigaction action = {};
    if (onlyIfCaught) {
        long result = raw(SYS_rt_sigaction, signal, 0, as_long(&action), sizeof action.mask);
        if (result < 0 || action.handler == SIG_DFL || action.handler == SIG_IGN) return result;
        action = {};
    }
    action.handler = disposition;
    return raw(SYS_rt_sigaction, signal, as_long(&action), 0, sizeof action.mask);
}
THREADLESS_CODE long sys_set_signal_mask(const sigset_t* mask) {
    return raw(SYS_rt_sigprocmask, SIG_SETMASK, as_long(mask), 0, 8);
}
NEW_PROCESS_CODE long sys_get_disposition(int signal, void (**handler)(int)) {
    KernelSigaction action = {};
    long result = raw(SYS_rt_sigaction, signal, 0, as_long(&action), sizeof action.mask);
    if (result == 0) *handler = action.handler;
    return result;
}
NEW_PROCESS_CODE long sys_take_pending_signal(const unsigned long* set) {
    struct timespec none = {0, 0};
    return raw(SYS_rt_sigtimedwait, as_long(set), 0, as_long(&none), sizeof *set);
}
THREADLESS_CODE long sys_setsid() {
    return raw(SYS_setsid);
}
THREADLESS_CODE long sys_set_name(const char* name) {
    return raw(SYS_prctl, PR_SET_NAME, as_long(name));
}
THREADLESS_CODE long sys_prlimit(int resource, const struct rlimit* limit, struct rlimit* old) {
    return raw(SYS_prlimit64, 0, resource, as_long(limit), as_long(old));
}
THREADLESS_CODE long sys_recvmsg(int fd, struct msghdr* message, int flags) {
    return raw(SYS_recvmsg, fd, as_long(message), flags);
}
THREADLESS_CODE long sys_pidfd_send_signal(int pidfd, int signal) {
    return raw(SYS_pidfd_send_signal, pidfd, signal, 0, 0);
}
THREADLESS_CODE long sys_nanosleep(long millis) {
    struct timespec span;
    span.tv_sec = millis / 1000;
    span.tv_nsec = (millis % 1000) * 1000000;
    return raw(SYS_nanosleep, as_long(&span), 0);
}
}
