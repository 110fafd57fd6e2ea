// Waiting for the end of a process, with and without a time limit, and reading its exit code.
#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "quillon/boundary.h"
#include "quillon/runtime.h"
#include "quillon/supervision.h"

namespace {
constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;

UnixProcessData* record_of(jlong handle) {
    return static_cast<UnixProcessData*>(process_ConvertJlongToPointer(handle));
}

void change_waiters(UnixProcessData* data, int delta) {
    pthread_mutex_lock(&data->waiterMutex);
    store_field(data->waiterCount, load_field(data->waiterCount) + delta);
    pthread_mutex_unlock(&data->waiterMutex);
}

// The body both wait natives share; `wait` is the wait function with its time-out bound in.
template <typename Wait> void wait_native(JNIEnv* env, jlong handle, const char* selfMessage, Wait wait) {
    process_log_entry("UnixProcessGlue_waitForTermination()");
    UnixProcessData* data = record_of(handle);
    int sysErr = 0;
    if (record_pid(data) == linux_getpid()) {
        ThrowWithMessage(env, PROC_WAIT_FOR_SELF, selfMessage, 0);
    } else if (load_field(data->isAlive) != 0) {
        change_waiters(data, +1);
        int result = wait(data, &sysErr);
        change_waiters(data, -1);
        if (result != PROC_SUCCESS)
            ThrowWithMessage(env, result, "Error waiting for process to terminate. ", sysErr);
        else
            process_log("Process [%s] had return code [%d]\n", data->pid, load_field(data->exitCode));
    }
    process_log_exit("UnixProcessGlue_waitForTermination()");
}
} // namespace

QUILLON_API int unix_WaitForProcessTermination(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_WaitForTermination()");
    int pid = record_pid(data);
    process_log("In wait for termination, check process (PID):  [%d]\n", pid);
    int status = 0;
    int waitResult;
    int waitErrno;
    do {
        errno = 0;
        waitResult = waitpid(pid, &status, 0);
        waitErrno = errno;
        process_log(
            "In wait for termination.  Wait over for process (PID): [%d].  Errno: [%d].  WaitResult: [%d]\n",
            pid, waitErrno, waitResult);
    } while (waitResult == -1 && waitErrno == EINTR);

    int result = PROC_SYSTEM_ERR;
    if (waitResult == pid) {
        lock_state(data);
        StoreExitCode(data, status);
        *sysErr = 0;
        store_field(data->isAlive, 0);
        unlock_state(data);
        result = PROC_SUCCESS;
    } else if (waitErrno == ECHILD) {
        process_log("In ECHILD Handler for wait for termination.  Recieved ECHILD for process (PID): [%d]\n",
                    pid);
        result = unix_WaitForProcessTerminationWithTimeout(data, kNoTimeLimit, sysErr);
    }
    process_log_exit("unix_WaitForTermination()");
    return result;
}

QUILLON_API int unix_WaitForProcessTerminationWithTimeout(UnixProcessData* data, uint32_t timeoutSeconds,
                                                          int* sysErr) {
    process_log_entry("unix_WaitForTerminationWithTimeout()");
    *sysErr = 0;
    process_log("In wait for termination with timeout, check process (PID):  [%s]\n", data->pid);
    int alive = 1;
    uint32_t waited = 0;
    while (alive != 0 && (timeoutSeconds == kNoTimeLimit || waited < timeoutSeconds)) {
        int probe = unix_PingProcess(data, sysErr);
        if (probe != PROC_SUCCESS) {
            process_log(
                "unix_PingProcess no longer returning PROC_SUCCESS.  Exiting with Ping Status: [%d]\n",
                probe);
            process_log_exit("unix_WaitForTerminationWithTimeout()");
            return probe;
        }
        lock_state(data);
        alive = data->isAlive;
        unlock_state(data);
        if (alive == 0) continue;
        uint32_t nap = SLEEP_INTERVAL;
        if (timeoutSeconds != kNoTimeLimit && timeoutSeconds - waited <= 1) nap = timeoutSeconds - waited;
        process_log("Time to sleep: [%u].  Timeout seconds is: [%u].  SLEEP_INTERVAL is: [%u]\n", nap,
                    timeoutSeconds, SLEEP_INTERVAL);
        sleep(nap);
        waited += nap;
    }
    process_log_exit("unix_WaitForTerminationWithTimeout()");
    return alive != 0 ? PROC_STILL_ACTIVE : PROC_SUCCESS;
}

QUILLON_API int unix_GetProcessExitCode(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_GetProcessExitCode()");
    *sysErr = 0;
    int result = unix_PingProcess(data, sysErr);
    if (result == PROC_SUCCESS) {
        lock_state(data);
        result = data->isAlive == 0 ? PROC_SUCCESS : PROC_STILL_ACTIVE;
        unlock_state(data);
    }
    process_log_exit("unix_GetProcessExitCode()");
    return result;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_waitForTermination(JNIEnv* env,
                                                                                           jobject,
                                                                                           jlong handle) {
    wait_native(env, handle, "Attempt to wait for self to terminate", unix_WaitForProcessTermination);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_waitForTerminationWithTimeout(
    JNIEnv* env, jobject, jlong handle, jint timeoutSeconds) {
    wait_native(
        env, handle, "Attempt to wait for self to terminate. ", [timeoutSeconds](UnixProcessData* d, int* e) {
            return unix_WaitForProcessTerminationWithTimeout(d, static_cast<uint32_t>(timeoutSeconds), e);
        });
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_getExitCode(JNIEnv* env, jobject,
                                                                                    jlong handle) {
    process_log_entry("UnixProcessGlue_getExitCode()");
    UnixProcessData* data = record_of(handle);
    int sysErr = 0;
    if (load_field(data->isAlive) != 0) {
        int result = unix_GetProcessExitCode(data, &sysErr);
        if (result != PROC_SUCCESS) {
            ThrowWithMessage(env, result, "Error getting exitcode. ", sysErr);
            process_log_exit("UnixProcessGlue_getExitCode()");
            return 0;
        }
    }
    // A waiter may have collected the status and not stored it yet; its count falls once it has.
    while (load_field(data->waiterCount) != 0)
        sleep(SLEEP_INTERVAL);
    process_log_exit("UnixProcessGlue_getExitCode()");
    return load_field(data->exitCode);
}
