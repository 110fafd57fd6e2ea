// The exec-outcome channel: a close-on-exec pipe that stays silent on a successful exec and carries
// two ints (sysErr, result) when the new process fails before or in it.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

namespace {
constexpr int64_t kDefaultTimeout = 120;
constexpr size_t kFixedSetBytes = 128;

bool is_accepted_minutes(const char* value) {
    size_t length = 0;
    for (const char* c = value; *c != 0; ++c, ++length)
        if (!isdigit(static_cast<unsigned char>(*c))) return false;
    return length >= 1 && length <= 5;
}

int read_int(int fd, int* out) {
    ssize_t got;
    do {
        got = read(fd, out, sizeof *out);
    } while (got == -1 && errno == EINTR);
    return static_cast<int>(got);
}
} // namespace

int KeepAboveStandard(int fd, bool closeOnExec) {
    if (fd < 0 || fd > 2) return fd;
    int moved = fcntl(fd, closeOnExec ? F_DUPFD_CLOEXEC : F_DUPFD, 3);
    if (moved == -1) return fd;
    close(fd);
    return moved;
}

int64_t unix_getStartProcessTimeout() {
    process_log_entry("unix_getStartProcessTimeout()");
    int64_t seconds = kDefaultTimeout;
    const char* value = getenv("__JNI_PROCESS_CREATE_TIMEOUT");
    if (value != nullptr && is_accepted_minutes(value)) {
        seconds = static_cast<long>(atoi(value)) * 60L;
        if (seconds < kDefaultTimeout) seconds = kDefaultTimeout;
    }
    process_log("Setting process creation timeout to: [%d] seconds.\n", static_cast<int>(seconds));
    process_log_exit("unix_getStartProcessTimeout()");
    return seconds;
}

int InitializePipe(int channel[2], int* sysErr) {
    process_log_entry("InitializePipe()");
    if (pipe(channel) == -1) {
        *sysErr = errno;
        process_err("Unable to initial pipe. errno=[%d]\n", *sysErr);
        process_log_exit("InitializePipe()");
        return PROC_SYSTEM_ERR;
    }
    channel[0] = KeepAboveStandard(channel[0], true);
    channel[1] = KeepAboveStandard(channel[1], true);
    fcntl(channel[0], F_SETFD, FD_CLOEXEC);
    fcntl(channel[1], F_SETFD, FD_CLOEXEC);
    process_log_exit("InitializePipe()");
    return PROC_SUCCESS;
}

int WaitForExecOutcome(int channel[2], int* sysErr) {
    process_log_entry("WaitForExecOutcome()");
    struct timeval limit = {};
    limit.tv_sec = unix_getStartProcessTimeout();
    limit.tv_usec = 0;
    close(channel[1]);

    const int readEnd = channel[0];
    const size_t words = (static_cast<size_t>(readEnd) + 1 + 63) / 64;
    uint64_t* ibits;
    if (readEnd <= 1023) {
        ibits = static_cast<uint64_t*>(malloc(kFixedSetBytes));
    } else {
        ibits = static_cast<uint64_t*>(malloc(words * sizeof(uint64_t)));
        if (ibits != nullptr) memset(ibits, 0, words * sizeof(uint64_t));
    }
    if (ibits == nullptr) {
        process_err("Unable to malloc ibits\n");
        close(readEnd);
        return PROC_OUT_OF_MEMORY;
    }
    memset(ibits, 0, kFixedSetBytes);
    ibits[readEnd / 64] |= uint64_t{1} << (readEnd % 64);

    int selected;
    do {
        selected = select(readEnd + 1, reinterpret_cast<fd_set*>(ibits), nullptr, nullptr, &limit);
    } while (selected == -1 && errno == EINTR);

    int result;
    if (selected != 1) {
        int saved = errno;
        process_err("Error during WaitForExecOutcome. result=[%d] errno=[%d]\n", selected, saved);
        if (selected == 0) {
            *sysErr = ETIMEDOUT;
            result = PROC_CREATE_TIMEOUT;
        } else {
            *sysErr = saved;
            result = PROC_SYSTEM_ERR;
        }
    } else {
        int first = read_int(readEnd, sysErr);
        if (first == 0) {
            result = PROC_SUCCESS;
        } else if (first != 4) {
            *sysErr = errno;
            result = PROC_SYSTEM_ERR;
        } else if (read_int(readEnd, &result) != 4) {
            result = PROC_SYSTEM_ERR;
        }
    }
    close(readEnd);
    free(ibits);
    process_log_exit("WaitForExecOutcome()");
    return result;
}
