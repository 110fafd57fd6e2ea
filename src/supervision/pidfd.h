// Descriptors that name one process for its whole life (Linux 5.3 and later).
#pragma once

#include <csignal>

// A pidfd for the process, close-on-exec; -1 with errno when the process is gone (ESRCH) or the system
// offers none (an older kernel, a filter that refuses the call).
extern "C" int quillon_pidfd_open(int pid);
// Sends `signal` to the process of the pidfd: 0, or -1 with errno.
int pidfd_signal(int pidfd, int signal);
