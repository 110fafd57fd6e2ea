// The record behind a handle, the liveness probe and adoption.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>

#include "quillon/boundary.h"
#include "quillon/runtime.h"
#include "quillon/supervision.h"

namespace {
constexpr int32_t kHeldStatusTag = 0x10000;

// How a collected status word changes the record; the caller holds stateMutex.
void store_collected_status(UnixProcessData* data, int status) {
    store_field(data->isAlive, StoreExitCode(data, status) ? 0 : 1);
}

void apply_held_status(UnixProcessData* data) {
    int32_t held = std::atomic_ref<int32_t>(data->heldStatus).exchange(0);
    if (held != 0) store_collected_status(data, held & ~kHeldStatusTag);
}

bool try_lock_state(UnixProcessData* data) {
    if (pthread_mutex_trylock(&data->stateMutex) != 0) return false;
    apply_held_status(data);
    return true;
}

// Not a child of ours (or already collected): kill with signal 0 decides.
int ping_not_a_child(UnixProcessData* data, int pid, int waitResult, int* sysErr) {
    errno = 0;
    int result;
    do {
        result = kill(pid, 0);
    } while (result == -1 && errno == EINTR);
    int killErrno = errno;
    process_log("In Ping NOEXIT Handler.  Kill [with sig 0] returned: [%d].  Errno: [%d]\n", result,
                killErrno);
    if (result == 0 || killErrno == ESRCH) {
        if (try_lock_state(data)) {
            store_field(data->isAlive, result == 0 ? 1 : 0);
            *sysErr = 0;
            unlock_state(data);
        }
        process_log("Exiting unix_PingProcess with PROC_SUCCESS, isAlive: %d\n", load_field(data->isAlive));
        return PROC_SUCCESS;
    }
    *sysErr = killErrno;
    process_log("Exiting unix_PingProcess with PROC_SYSTEM_ERR.  Errno: [%d].  waitResult: [%d]\n", *sysErr,
                waitResult);
    return PROC_SYSTEM_ERR;
}
} // namespace

bool StoreExitCode(UnixProcessData* data, int status) {
    int low = status & 0x7f;
    if (low == 0)
        store_field(data->exitCode, (status >> 8) & 0xff);
    else if (low != 0x7f)
        store_field(data->exitCode, low);
    return low != 0x7f;
}

UnixProcessData* NewProcessData() {
    auto* data = static_cast<UnixProcessData*>(malloc(sizeof(UnixProcessData)));
    if (data == nullptr) return nullptr;
    memset(data, 0, sizeof *data);
    pthread_mutex_init(&data->stateMutex, nullptr);
    pthread_mutex_init(&data->waiterMutex, nullptr);
    return data;
}

void lock_state(UnixProcessData* data) {
    pthread_mutex_lock(&data->stateMutex);
    apply_held_status(data);
}

void unlock_state(UnixProcessData* data) {
    apply_held_status(data);
    pthread_mutex_unlock(&data->stateMutex);
}

QUILLON_API int unix_PingProcess(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_PingProcess()");
    int pid = record_pid(data);
    int status = 0;
    int waitResult;
    int errnoStore;
    do {
        process_log("In ping, checking process: [%d]\n", pid);
        waitResult = waitpid(pid, &status, WNOHANG);
        errnoStore = errno;
    } while (errnoStore == EINTR && waitResult == -1);
    process_log("After waitpid, waitResult=[%d] errnoStore=[%d]\n", waitResult, errnoStore);
    *sysErr = errnoStore;
    if (*sysErr == 0 && waitResult == -1)
        process_log("Screwball case on Linux.  No error, yet waitpid returned -1\n");

    int result = PROC_SUCCESS;
    if (waitResult == pid) {
        if (try_lock_state(data)) {
            store_collected_status(data, status);
            *sysErr = 0;
            unlock_state(data);
        } else {
            // The holder of the lock (or the next one) stores it: the exit status is never lost.
            std::atomic_ref<int32_t>(data->heldStatus).store(status | kHeldStatusTag);
        }
    } else if (waitResult == 0) {
        if (try_lock_state(data)) {
            store_field(data->isAlive, 1);
            *sysErr = 0;
            unlock_state(data);
        }
    } else if (*sysErr == ECHILD || (waitResult == -1 && *sysErr == 0)) {
        errno = 0;
        result = ping_not_a_child(data, pid, waitResult, sysErr);
    } else {
        process_log("Exiting unix_PingProcess with PROC_SYSTEM_ERR with no conditions met.  Errno: [%d].  "
                    "waitResult: [%d]\n",
                    *sysErr, waitResult);
        result = PROC_SYSTEM_ERR;
    }
    process_log_exit("unix_PingProcess()");
    return result;
}

QUILLON_API int unix_AdoptProcess(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_AdoptProcess()");
    process_log("In AdoptProcess, calling existance check on Process (PID): [%s]\n", data->pid);
    int result = unix_PingProcess(data, sysErr);
    if (result == PROC_SUCCESS) {
        *sysErr = 0;
        lock_state(data);
        result = data->isAlive == 1 ? PROC_SUCCESS : PROC_HAS_EXITED;
        unlock_state(data);
    }
    process_log("Adopt request for pid [%s] results: %d\n", data->pid, result);
    process_log_exit("unix_AdoptProcess()");
    return result;
}

QUILLON_API void unix_doneWithProcess(UnixProcessData* data, int*) {
    process_log_entry("unix_doneWithProcess()");
    if (data != nullptr) {
        process_log("Destroying mutex for process (PID): [%s]\n", data->pid);
        pthread_mutex_destroy(&data->stateMutex);
        pthread_mutex_destroy(&data->waiterMutex);
    }
    process_log_exit("unix_doneWithProcess()");
}
