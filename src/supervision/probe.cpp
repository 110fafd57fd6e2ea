// The liveness probe, adoption, and the end of a record.
#include <cerrno>

#include "quillon/result_codes.h"
#include "runtime/support.h"
#include "supervision/supervision_internal.h"

namespace {
// The end the entry knows, taken into the record; the caller holds stateMutex.
void take_end(UnixProcessData* data) {
    store_field(data->exitCode, entry_exit_code(entry_of(data)));
    store_field(data->isAlive, 0);
}

} // namespace

int ensure_entry(UnixProcessData* data, int* sysErr) {
    if (entry_of(data) != nullptr) return PROC_SUCCESS;
    int pid = record_pid(data);
    if (pid <= 0) { // 0 and negative numbers name process groups to waitpid and kill
        *sysErr = EINVAL;
        return PROC_SYSTEM_ERR;
    }
    ProcessEntry* entry = entry_for_adoption(pid);
    if (entry == nullptr) {
        *sysErr = ENOMEM;
        return PROC_OUT_OF_MEMORY;
    }
    ProcessEntry* none = nullptr;
    if (!std::atomic_ref<ProcessEntry*>(data->process).compare_exchange_strong(none, entry))
        release_entry(entry); // another thread gave it one first
    return PROC_SUCCESS;
}

namespace {

// Not a child of ours, or collected by someone else: whether it still exists decides.
int ping_not_a_child(UnixProcessData* data, int waitResult, int* sysErr) {
    Observation seen = observe_non_child(entry_of(data));
    process_log("In Ping NOEXIT Handler.  Kill [with sig 0] returned: [%d].  Errno: [%d]\n", seen.result,
                seen.err);
    if (seen.result == 0 || seen.err == ESRCH) {
        if (pthread_mutex_trylock(&data->stateMutex) == 0) {
            if (seen.result == 0)
                store_field(data->isAlive, 1);
            else
                take_end(data);
            *sysErr = 0;
            pthread_mutex_unlock(&data->stateMutex);
        }
        process_log("Exiting unix_PingProcess with PROC_SUCCESS, isAlive: %d\n", load_field(data->isAlive));
        return PROC_SUCCESS;
    }
    *sysErr = seen.err;
    process_log("Exiting unix_PingProcess with PROC_SYSTEM_ERR.  Errno: [%d].  waitResult: [%d]\n", *sysErr,
                waitResult);
    return PROC_SYSTEM_ERR;
}
} // namespace

QUILLON_API int unix_PingProcess(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_PingProcess()");
    int pid = record_pid(data);
    int result = ensure_entry(data, sysErr);
    if (result != PROC_SUCCESS) return result;
    process_log("In ping, checking process: [%d]\n", pid);
    Collection collected = collect_child(entry_of(data));
    process_log("After waitpid, waitResult=[%d] errnoStore=[%d]\n", collected.waitResult, collected.err);
    *sysErr = collected.err;
    if (*sysErr == 0 && collected.waitResult == -1)
        process_log("Screwball case on Linux.  No error, yet waitpid returned -1\n");

    if (collected.waitResult == pid) {
        // A busy lock leaves the record as it is; the status waits in the entry for the next look.
        if (pthread_mutex_trylock(&data->stateMutex) == 0) {
            take_end(data);
            *sysErr = 0;
            pthread_mutex_unlock(&data->stateMutex);
        }
    } else if (collected.waitResult == 0) {
        if (pthread_mutex_trylock(&data->stateMutex) == 0) {
            store_field(data->isAlive, 1);
            *sysErr = 0;
            pthread_mutex_unlock(&data->stateMutex);
        }
    } else if (*sysErr == ECHILD || (collected.waitResult == -1 && *sysErr == 0)) {
        result = ping_not_a_child(data, collected.waitResult, sysErr);
    } else {
        process_log("Exiting unix_PingProcess with PROC_SYSTEM_ERR with no conditions met.  Errno: [%d].  "
                    "waitResult: [%d]\n",
                    *sysErr, collected.waitResult);
        result = PROC_SYSTEM_ERR;
    }
    return result;
}

QUILLON_API int unix_AdoptProcess(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_AdoptProcess()");
    process_log("In AdoptProcess, calling existance check on Process (PID): [%s]\n", data->pid);
    int result = unix_PingProcess(data, sysErr);
    if (result == PROC_SUCCESS) {
        *sysErr = 0;
        pthread_mutex_lock(&data->stateMutex);
        result = data->isAlive == 1 ? PROC_SUCCESS : PROC_HAS_EXITED;
        pthread_mutex_unlock(&data->stateMutex);
    }
    process_log("Adopt request for pid [%s] results: %d\n", data->pid, result);
    return result;
}

QUILLON_API void unix_doneWithProcess(UnixProcessData* data, int*) {
    TraceScope trace("unix_doneWithProcess()");
    if (data == nullptr) return;
    process_log("Destroying mutex for process (PID): [%s]\n", data->pid);
    pthread_mutex_destroy(&data->stateMutex);
    pthread_mutex_destroy(&data->waiterMutex);
    release_entry(data->process);
    data->process = nullptr;
}
