#include "runtime/pidfd.h"

#include <sys/syscall.h>
#include <unistd.h>

extern "C" int quillon_pidfd_open(int pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

int pidfd_signal(int pidfd, int signal) {
    return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}
