#include "support/seams.h"

#include <cstddef>
#include <sys/select.h>
#include <unistd.h>

namespace seams {
thread_local Fault malloc;
thread_local Fault dup2;
thread_local Fault fork;
thread_local Fault pipe;
thread_local SelectFake select;
} // namespace seams

namespace {
bool due(seams::Fault& fault) {
    if (fault.at == 0 || --fault.at != 0) return false;
    errno = fault.err;
    return true;
}
} // namespace

extern "C" {
void* __real_malloc(size_t size);
int __real_dup2(int from, int to);
int __real_select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t);
pid_t __real_fork(void);
int __real_pipe(int fds[2]);

void* __wrap_malloc(size_t size) {
    return due(seams::malloc) ? nullptr : __real_malloc(size);
}
int __wrap_dup2(int from, int to) {
    return due(seams::dup2) ? -1 : __real_dup2(from, to);
}
pid_t __wrap_fork(void) {
    return due(seams::fork) ? -1 : __real_fork();
}
int __wrap_pipe(int fds[2]) {
    return due(seams::pipe) ? -1 : __real_pipe(fds);
}

int __wrap_select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
    if (!seams::select.armed) return __real_select(n, r, w, e, t);
    seams::select.armed = false;
    errno = seams::select.err;
    return seams::select.result;
}
}
