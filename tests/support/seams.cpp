#include "support/seams.h"

#include "runtime/support.h"

#include <cstddef>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/types.h>
#include <unistd.h>

namespace seams {
Fault malloc;
Fault dup2;
Fault clone;
Fault secondClone;
Fault secondCloneIntoCgroup;
Fault cloneIntoCgroup;
Fault pipe;
std::atomic<int> inheritablePipes = 0;
Fault pidfd;
Fault mutexInit;
Fault epollAdd;
SelectFake select;
std::atomic<void (*)()> beforeClone = nullptr;
std::atomic<void (*)()> inIntermediate = nullptr;
std::atomic<void (*)(int)> beforePidfd = nullptr;
} // namespace seams

namespace {
// Whether the fault strikes this call; errno is left to the caller.
NEW_PROCESS_CODE bool strikes(seams::Fault& fault) {
    if (fault.at == seams::kAlways) return true;
    return fault.at != 0 && --fault.at == 0;
}

bool due(seams::Fault& fault) {
    if (!strikes(fault)) return false;
    errno = fault.err;
    return true;
}
} // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
long __real_sys_dup2(int from, int to);
int __real_select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t);
int __real_clone(int (*main)(void*), void* stack, int flags, void* argument, ...);
pid_t __real_clone_into_cgroup(int (*main)(void*), void* argument, void* stackLow, size_t stackSize,
                               int cgroupFd);
int __real_pipe(int fds[2]);
long __real_clone_vm_raw(int (*main)(void*), void* argument, void* stackTop);
long __real_clone_into_cgroup_raw(int (*main)(void*), void* argument, void* stackLow, size_t stackSize,
                                  int cgroupFd);
int __real_pipe2(int fds[2], int flags);
int __real_quillon_pidfd_open(int pid);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_epoll_ctl(int set, int op, int fd, struct epoll_event* event);

void* __wrap_malloc(size_t size) {
    return due(seams::malloc) ? nullptr : __real_malloc(size);
}
// The compiler turns malloc and a zero fill into calloc: both are the heap.
void* __wrap_calloc(size_t count, size_t size) {
    return due(seams::malloc) ? nullptr : __real_calloc(count, size);
}
long __wrap_sys_dup2(int from, int to) {
    return due(seams::dup2) ? -seams::dup2.err : __real_sys_dup2(from, to);
}
int __wrap_clone(int (*main)(void*), void* stack, int flags, void* argument, ...) {
    if (void (*hook)() = seams::beforeClone.exchange(nullptr)) hook();
    return due(seams::clone) ? -1 : __real_clone(main, stack, flags, argument);
}
pid_t __wrap_clone_into_cgroup(int (*main)(void*), void* argument, void* stackLow, size_t stackSize,
                               int cgroupFd) {
    if (void (*hook)() = seams::beforeClone.exchange(nullptr)) hook();
    if (due(seams::cloneIntoCgroup)) return -1;
    return __real_clone_into_cgroup(main, argument, stackLow, stackSize, cgroupFd);
}
NEW_PROCESS_CODE long __wrap_clone_vm_raw(int (*main)(void*), void* argument, void* stackTop) {
    if (void (*hook)() = seams::inIntermediate.exchange(nullptr)) hook();
    return strikes(seams::secondClone) ? -seams::secondClone.err
                                       : __real_clone_vm_raw(main, argument, stackTop);
}
NEW_PROCESS_CODE long __wrap_clone_into_cgroup_raw(int (*main)(void*), void* argument, void* stackLow,
                                                   size_t stackSize, int cgroupFd) {
    if (void (*hook)() = seams::inIntermediate.exchange(nullptr)) hook();
    if (strikes(seams::secondCloneIntoCgroup)) return -seams::secondCloneIntoCgroup.err;
    return __real_clone_into_cgroup_raw(main, argument, stackLow, stackSize, cgroupFd);
}
int __wrap_pipe(int fds[2]) {
    if (due(seams::pipe)) return -1;
    ++seams::inheritablePipes;
    return __real_pipe(fds);
}
int __wrap_pipe2(int fds[2], int flags) {
    if (due(seams::pipe)) return -1;
    if ((flags & O_CLOEXEC) == 0) ++seams::inheritablePipes;
    return __real_pipe2(fds, flags);
}
int __wrap_quillon_pidfd_open(int pid) {
    if (void (*hook)(int) = seams::beforePidfd.exchange(nullptr)) hook(pid);
    return due(seams::pidfd) ? -1 : __real_quillon_pidfd_open(pid);
}
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return due(seams::mutexInit) ? seams::mutexInit.err : __real_pthread_mutex_init(mutex, attributes);
}
int __wrap_epoll_ctl(int set, int op, int fd, struct epoll_event* event) {
    if (op == EPOLL_CTL_ADD && due(seams::epollAdd)) return -1;
    return __real_epoll_ctl(set, op, fd, event);
}
int __wrap_select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
    if (!seams::select.armed) return __real_select(n, r, w, e, t);
    seams::select.armed = false;
    errno = seams::select.err;
    return seams::select.result;
}
}
