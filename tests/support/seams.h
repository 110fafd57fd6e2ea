// Link-time seams (-Wl,--wrap) for faults that can't be caused for real. Unarmed, each wrapper is the
// real call. Arming is for the whole test process (the tests that arm one run a single thread); a new process made
// by a launch shares it, since it shares the launcher's memory until its exec.
#pragma once

#include <atomic>
#include <cerrno>

namespace seams {
// The at-th next call (1 = the next one) fails with err; at 0 is disarmed, kAlways fails every call.
constexpr int kAlways = -1;
struct Fault {
    int at = 0;
    int err = 0;
};
extern Fault malloc; // calloc as well
extern Fault dup2;  // the new process's dup2
extern Fault clone; // the launcher's: an attached launch's new process, a detached launch's intermediate one
// The clones of a detached launch's intermediate process, which shares the test's memory: they fail with -err
// and leave errno alone.
extern Fault secondClone;           // a plain one
extern Fault secondCloneIntoCgroup; // into a v2 group
extern Fault cloneIntoCgroup;       // clone_into_cgroup, as ENOSYS on a kernel without clone3
extern Fault pipe;                  // pipe and pipe2
// Pipes made inheritable (pipe, or pipe2 without O_CLOEXEC) since the start, by any thread.
extern std::atomic<int> inheritablePipes;
extern Fault pidfd; // pidfd_open, as on a kernel without it
// Runs once, in the next pidfd_open, with its PID (then disarms itself).
extern std::atomic<void (*)(int pid)> beforePidfd;
extern Fault mutexInit;
extern Fault epollAdd; // epoll_ctl's EPOLL_CTL_ADD, as when the set refuses a descriptor (ENOSPC, ENOMEM)
// The next select returns `result` with errno `err` instead of waiting.
struct SelectFake {
    bool armed = false;
    int result = 0;
    int err = 0;
};
extern SelectFake select;
// Runs once, in the next clone or clone_into_cgroup, before the new process is made (then disarms itself).
extern std::atomic<void (*)()> beforeClone;
// Runs once, in a detached launch's intermediate process before its clone (then disarms itself). It shares
// the test's memory and thread pointer: raw system calls only.
extern std::atomic<void (*)()> inIntermediate;
} // namespace seams
