// Signals to the process of a record: stop (SIGTERM), kill (SIGKILL), thread-dump poke (SIGQUIT). They
// go through the process's pidfd, so a record whose process has ended never reaches a successor.
#include <cerrno>
#include <csignal>

#include "quillon/result_codes.h"
#include "runtime/support.h"
#include "supervision/supervision_internal.h"

namespace {
// 0 when the signal counts as done (sent, or the process no longer exists), else the errno.
int send_signal(UnixProcessData* data, int signal) {
    int err = signal_process(entry_of(data), record_pid(data), signal);
    return err == ESRCH ? 0 : err;
}

// A refused stop or dump: the probe decides whether the process is still there to be refused. A probe
// that fails too (no child, no right to signal) is reported with the errno of the signal.
int judge_refusal(UnixProcessData* data, int signalErrno, int* sysErr) {
    if (unix_PingProcess(data, sysErr) != PROC_SUCCESS) {
        *sysErr = signalErrno;
        return PROC_SYSTEM_ERR;
    }
    int result = PROC_SUCCESS;
    pthread_mutex_lock(&data->stateMutex);
    if (data->isAlive != 0) {
        *sysErr = signalErrno;
        result = PROC_SYSTEM_ERR;
    }
    pthread_mutex_unlock(&data->stateMutex);
    return result;
}
} // namespace

QUILLON_API int unix_StopProcess(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_StopProcess()");
    process_log("Signaling process: %s with SIGTERM\n", data->pid);
    *sysErr = 0;
    int err = send_signal(data, SIGTERM);
    int result = err == 0 ? PROC_SUCCESS : judge_refusal(data, err, sysErr);
    process_log("Stop request for pid [%s] results: %d\n", data->pid, result);
    return result;
}

QUILLON_API int unix_KillProcess(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_KillProcess()");
    process_log("Signaling process: [%s] with SIGKILL\n", data->pid);
    *sysErr = 0;
    int err = send_signal(data, SIGKILL);
    int result = PROC_SUCCESS;
    if (err != 0) {
        *sysErr = err;
        result = err == EPERM ? PROC_ACCESS_DENIED : PROC_SYSTEM_ERR;
    }
    process_log("Kill request for pid [%s] results: %d\n", data->pid, result);
    return result;
}

QUILLON_API int unix_GenerateJVMThreadDump(UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_GenerateJVMThreadDump()");
    int err = send_signal(data, SIGQUIT);
    if (err != 0) return judge_refusal(data, err, sysErr);
    *sysErr = 0;
    return PROC_SUCCESS;
}
