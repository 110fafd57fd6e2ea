#include "support/seams.h"

#include <cerrno>
#include <cstddef>
#include <sys/select.h>
#include <unistd.h>

namespace seams {
thread_local int mallocFailAt = 0;
thread_local int dup2Errno = 0;
thread_local int forkErrno = 0;
thread_local int pipeErrno = 0;
thread_local bool selectArmed = false;
thread_local int selectResult = 0;
thread_local int selectErrno = 0;
} // namespace seams

namespace {
int fail_once(int& armedErrno) {
    errno = armedErrno;
    armedErrno = 0;
    return -1;
}
} // namespace

extern "C" {
void* __real_malloc(size_t size);
int __real_dup2(int from, int to);
int __real_select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t);
pid_t __real_fork(void);
int __real_pipe(int fds[2]);

void* __wrap_malloc(size_t size) {
    if (seams::mallocFailAt > 0 && --seams::mallocFailAt == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

int __wrap_dup2(int from, int to) {
    return seams::dup2Errno != 0 ? fail_once(seams::dup2Errno) : __real_dup2(from, to);
}

pid_t __wrap_fork(void) { return seams::forkErrno != 0 ? fail_once(seams::forkErrno) : __real_fork(); }

int __wrap_pipe(int fds[2]) { return seams::pipeErrno != 0 ? fail_once(seams::pipeErrno) : __real_pipe(fds); }

int __wrap_select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
    if (!seams::selectArmed) return __real_select(n, r, w, e, t);
    seams::selectArmed = false;
    errno = seams::selectErrno;
    return seams::selectResult;
}
}
