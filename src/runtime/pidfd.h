// Descriptors that name one process for its whole life (Linux 5.3 and later).
#pragma once

#include <cerrno>
#include <csignal>

#include "quillon/runtime.h"

// A pidfd for the process, close-on-exec; -1 with errno when the process is gone (ESRCH) or the system
// offers none (an older kernel, a filter that refuses the call).
extern "C" int quillon_pidfd_open(int pid);
// quillon_pidfd_open, with a trace line when the process is there but the system gives no pidfd for it
// (then it is followed by its PID).
inline int pidfd_or_trace(int pid) {
    int pidfd = quillon_pidfd_open(pid);
    if (pidfd == -1 && errno != ESRCH) {
        int err = errno;
        process_log("No pidfd for process [%d], errno [%d]: following it by its PID\n", pid, err);
        errno = err;
    }
    return pidfd;
}
// Sends `signal` to the process of the pidfd: 0, or -1 with errno.
int pidfd_signal(int pidfd, int signal);
