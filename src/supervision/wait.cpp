// Waiting for the end of a process, with and without a time limit, and reading its exit code. Waits
// wake when the process ends: a child through waitid, anything else through its pidfd.
#include <cerrno>
#include <ctime>

#include "quillon/result_codes.h"
#include "runtime/support.h"
#include "supervision/supervision_internal.h"

namespace {
constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;

int64_t now_millis() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}
} // namespace

QUILLON_API int unix_WaitForProcessTermination(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_WaitForTermination()");
    int pid = record_pid(data);
    process_log("In wait for termination, check process (PID):  [%d]\n", pid);
    int result = ensure_entry(data, sysErr);
    if (result != PROC_SUCCESS) return result;
    Collection collected = await_and_collect_child(entry_of(data));
    process_log(
        "In wait for termination.  Wait over for process (PID): [%d].  Errno: [%d].  WaitResult: [%d]\n", pid,
        collected.err, collected.waitResult);
    if (collected.waitResult == pid) {
        pthread_mutex_lock(&data->stateMutex);
        store_field(data->exitCode, entry_exit_code(entry_of(data)));
        *sysErr = 0;
        store_field(data->isAlive, 0);
        pthread_mutex_unlock(&data->stateMutex);
        return PROC_SUCCESS;
    }
    if (collected.err == ECHILD) {
        process_log("In ECHILD Handler for wait for termination.  Recieved ECHILD for process (PID): [%d]\n",
                    pid);
        return wait_with_timeout(data, kForever, sysErr);
    }
    return PROC_SYSTEM_ERR;
}

int wait_with_timeout(UnixProcessData* data, int64_t millis, int* sysErr) {
    TraceScope trace("unix_WaitForTerminationWithTimeout()");
    *sysErr = 0;
    process_log("In wait for termination with timeout, check process (PID):  [%s]\n", data->pid);
    const int64_t deadline = millis == kForever ? 0 : now_millis() + millis;
    const unsigned timeoutSeconds = millis == kForever ? kNoTimeLimit : static_cast<unsigned>((millis + 999) / 1000);
    for (;;) {
        int probe = unix_PingProcess(data, sysErr);
        if (probe != PROC_SUCCESS) {
            process_log("unix_PingProcess no longer returning PROC_SUCCESS.  Exiting with Ping Status: [%d]\n",
                        probe);
            return probe;
        }
        pthread_mutex_lock(&data->stateMutex);
        int alive = data->isAlive;
        pthread_mutex_unlock(&data->stateMutex);
        if (alive == 0) return PROC_SUCCESS;
        // A nap lasts SLEEP_INTERVAL at most and ends early when the process ends; the last look comes
        // at the deadline itself.
        int64_t nap = SLEEP_INTERVAL * 1000;
        if (millis != kForever) {
            int64_t left = deadline - now_millis();
            if (left <= 0) return PROC_STILL_ACTIVE;
            if (left < nap) nap = left;
        }
        process_log("Time to sleep: [%u].  Timeout seconds is: [%u].  SLEEP_INTERVAL is: [%u]\n",
                    static_cast<unsigned>((nap + 999) / 1000), timeoutSeconds, SLEEP_INTERVAL);
        await_end(entry_of(data), nap);
    }
}

QUILLON_API int unix_WaitForProcessTerminationWithTimeout(UnixProcessData* data, uint32_t timeoutSeconds,
                                                          int* sysErr) {
    return wait_with_timeout(data, timeoutSeconds == kNoTimeLimit ? kForever : int64_t{timeoutSeconds} * 1000,
                             sysErr);
}

QUILLON_API int unix_GetProcessExitCode(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_GetProcessExitCode()");
    *sysErr = 0;
    int result = unix_PingProcess(data, sysErr);
    if (result == PROC_SUCCESS) {
        pthread_mutex_lock(&data->stateMutex);
        result = data->isAlive == 0 ? PROC_SUCCESS : PROC_STILL_ACTIVE;
        pthread_mutex_unlock(&data->stateMutex);
    }
    return result;
}
