// System calls for the new process, made without the C library: until its exec the new process shares
// the launcher's memory and thread pointer, so it must not write errno or any other state of the C
// library. Each returns the kernel's answer: a value, or -errno.
#pragma once

#include <csignal>
#include <cstddef>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/types.h>

extern "C" {
long sys_read(int fd, void* buffer, size_t size);
long sys_write(int fd, const void* buffer, size_t size);
long sys_open(const char* path, int flags, mode_t mode);
long sys_close(int fd);
long sys_dup2(int from, int to);
long sys_fcntl(int fd, int command, long argument);
long sys_close_range(unsigned first, unsigned last);
long sys_chdir(const char* path);
long sys_setpgid(pid_t pid, pid_t group);
long sys_umask(mode_t mask);
// The kernel answers 20 - nice (1 to 40), so that a failure stays apart as -errno.
long sys_getpriority();
long sys_setpriority(int nice);
long sys_setgroups(size_t count, const gid_t* groups);
long sys_setgid(gid_t gid);
long sys_setuid(uid_t uid);
long sys_getuid();
long sys_geteuid();
long sys_getgid();
long sys_getegid();
long sys_getpid();
long sys_execve(const char* path, char* const* argv, char* const* envp);
[[noreturn]] void sys_exit(int status);
// Sets the disposition of a signal to SIG_DFL or SIG_IGN; with `onlyIfCaught`, only a caught signal's.
long sys_set_disposition(int signal, void (*disposition)(int), bool onlyIfCaught);
long sys_set_signal_mask(const sigset_t* mask);
// The disposition of a signal into `handler` (SIG_DFL, SIG_IGN or a handler): 0 or -errno.
long sys_get_disposition(int signal, void (**handler)(int));
// Takes one pending signal of `set` (the kernel's 64-bit set) off without waiting: its number, or -EAGAIN
// when none is pending.
long sys_take_pending_signal(const unsigned long* set);
long sys_setsid();
long sys_set_name(const char* name);
// The calling process's limit of `resource`: the old one into `old`, then `limit` where not null.
long sys_prlimit(int resource, const struct rlimit* limit, struct rlimit* old);
long sys_recvmsg(int fd, struct msghdr* message, int flags);
long sys_pidfd_send_signal(int pidfd, int signal);
long sys_nanosleep(long millis);
}
