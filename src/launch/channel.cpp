// The exec-outcome channel: a close-on-exec pipe that stays silent on a successful exec and carries
// two ints (sysErr, result) when the new process fails before or in it.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include "launch/launch_internal.h"

namespace {
constexpr int64_t kDefaultTimeout = 120;
constexpr size_t kFixedSetBytes = 128;

bool is_accepted_minutes(const char* value) {
    size_t length = 0;
    for (const char* c = value; *c != 0; ++c, ++length)
        if (!isdigit(static_cast<unsigned char>(*c))) return false;
    return length >= 1 && length <= 5;
}
} // namespace

int read_int(int fd, int* out) {
    return static_cast<int>(retry_on_eintr([&] { return read(fd, out, sizeof *out); }));
}

int keep_above_standard(int fd, bool closeOnExec) {
    if (fd < 0 || fd > 2) return fd;
    int moved = fcntl(fd, closeOnExec ? F_DUPFD_CLOEXEC : F_DUPFD, 3);
    if (moved == -1) return fd;
    close(fd);
    return moved;
}

int64_t unix_getStartProcessTimeout() {
    TraceScope trace("unix_getStartProcessTimeout()");
    int64_t seconds = kDefaultTimeout;
    const char* value = getenv("__JNI_PROCESS_CREATE_TIMEOUT");
    if (value != nullptr && is_accepted_minutes(value)) {
        seconds = static_cast<long>(atoi(value)) * 60L;
        if (seconds < kDefaultTimeout) seconds = kDefaultTimeout;
    }
    process_log("Setting process creation timeout to: [%d] seconds.\n", static_cast<int>(seconds));
    return seconds;
}

int ExecOutcomeChannel::open(int* sysErr) {
    TraceScope trace("InitializePipe()");
    int ends[2];
    // Close-on-exec from the start: a program another thread starts meanwhile must not hold the write end, or
    // the wait would last its whole limit and kill a program that exec'd fine.
    if (pipe2(ends, O_CLOEXEC) == -1) {
        *sysErr = errno;
        process_err("Unable to initial pipe. errno=[%d]\n", *sysErr);
        return PROC_SYSTEM_ERR;
    }
    read_.reset(keep_above_standard(ends[0], true));
    write_.reset(keep_above_standard(ends[1], true));
    return PROC_SUCCESS;
}

ExecOutcome ExecOutcomeChannel::await(int64_t limitSeconds) {
    struct timeval limit = {};
    limit.tv_sec = limitSeconds;
    limit.tv_usec = 0;
    write_.reset();

    UniqueFd readEnd(read_.release());
    const int fd = readEnd.get();
    ExecOutcome outcome;
    // A descriptor above 1023 needs a set sized to it; select takes the set by its descriptor count.
    const size_t words = fd <= 1023 ? kFixedSetBytes / sizeof(uint64_t) : (static_cast<size_t>(fd) + 1 + 63) / 64;
    MallocPtr<uint64_t> ibits(static_cast<uint64_t*>(calloc(words, sizeof(uint64_t))));
    if (ibits == nullptr) {
        process_err("Unable to malloc ibits\n");
        outcome.result = PROC_OUT_OF_MEMORY;
        outcome.step = kStepWaitBuffer;
        return outcome;
    }
    ibits.get()[fd / 64] |= uint64_t{1} << (fd % 64);

    int selected = retry_on_eintr(
        [&] { return select(fd + 1, reinterpret_cast<fd_set*>(ibits.get()), nullptr, nullptr, &limit); });
    if (selected != 1) {
        int saved = errno;
        process_err("Error during WaitForExecOutcome. result=[%d] errno=[%d]\n", selected, saved);
        outcome.sysErr = selected == 0 ? ETIMEDOUT : saved;
        outcome.result = selected == 0 ? PROC_CREATE_TIMEOUT : PROC_SYSTEM_ERR;
        outcome.step = kStepLauncher;
        return outcome;
    }
    // The failure record: sysErr and the result, then the step and its detail.
    int first = read_int(fd, &outcome.sysErr);
    if (first == 0) return outcome;
    if (first != 4) {
        outcome.sysErr = errno;
        outcome.result = PROC_SYSTEM_ERR;
        outcome.step = kStepLauncher;
        return outcome;
    }
    if (read_int(fd, &outcome.result) != 4) {
        outcome.result = PROC_SYSTEM_ERR;
        outcome.step = kStepLauncher;
        return outcome;
    }
    if (read_int(fd, &outcome.step) != 4 || read_int(fd, &outcome.detail) != 4) outcome.step = kStepLauncher;
    return outcome;
}

ExecOutcome WaitForExecOutcome(ExecOutcomeChannel& channel) {
    TraceScope trace("WaitForExecOutcome()");
    ExecOutcome outcome = channel.await(unix_getStartProcessTimeout());
    if (outcome.step == kStepWaitBuffer) trace.skip_exit(); // no exit line on that path
    return outcome;
}
