// Signals to the process of a handle: stop (SIGTERM), kill (SIGKILL), thread-dump poke (SIGQUIT).
#include <cerrno>
#include <csignal>

#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "quillon/boundary.h"
#include "quillon/runtime.h"
#include "quillon/supervision.h"

namespace {
UnixProcessData* record_of(jlong handle) {
    return static_cast<UnixProcessData*>(process_ConvertJlongToPointer(handle));
}

// kill() repeated while interrupted; gives the errno of the last attempt, 0 when it counts as done
// (sent, or the process no longer exists).
int send_signal(const UnixProcessData* data, int signal) {
    int result;
    int err;
    do {
        errno = 0;
        result = kill(record_pid(data), signal);
        err = errno;
    } while (result == -1 && err == EINTR);
    return (result == 0 || err == ESRCH) ? 0 : err;
}

// A refused stop or dump: the probe decides whether the process is still there to be refused. A probe
// that fails too (no child, no right to signal) is reported with the errno of the signal.
int judge_refusal(UnixProcessData* data, int signalErrno, int* sysErr) {
    int result = PROC_SUCCESS;
    if (unix_PingProcess(data, sysErr) != PROC_SUCCESS) {
        *sysErr = signalErrno;
        return PROC_SYSTEM_ERR;
    }
    lock_state(data);
    if (data->isAlive != 0) {
        *sysErr = signalErrno;
        result = PROC_SYSTEM_ERR;
    }
    unlock_state(data);
    return result;
}

template <typename Operation>
void signal_native(JNIEnv* env, jlong handle, const char* label, const char* message, Operation operation) {
    process_log_entry(label);
    int sysErr = 0;
    int result = operation(record_of(handle), &sysErr);
    if (result != PROC_SUCCESS) ThrowWithMessage(env, result, message, sysErr);
    process_log_exit(label);
}
} // namespace

QUILLON_API int unix_StopProcess(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_StopProcess()");
    process_log("Signaling process: %s with SIGTERM\n", data->pid);
    *sysErr = 0;
    int err = send_signal(data, SIGTERM);
    int result = err == 0 ? PROC_SUCCESS : judge_refusal(data, err, sysErr);
    process_log("Stop request for pid [%s] results: %d\n", data->pid, result);
    process_log_exit("unix_StopProcess()");
    return result;
}

QUILLON_API int unix_KillProcess(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_KillProcess()");
    process_log("Signaling process: [%s] with SIGKILL\n", data->pid);
    *sysErr = 0;
    int err = send_signal(data, SIGKILL);
    int result = PROC_SUCCESS;
    if (err != 0) {
        *sysErr = err;
        result = err == EPERM ? PROC_ACCESS_DENIED : PROC_SYSTEM_ERR;
    }
    process_log("Kill request for pid [%s] results: %d\n", data->pid, result);
    process_log_exit("unix_KillProcess()");
    return result;
}

QUILLON_API int unix_GenerateJVMThreadDump(UnixProcessData* data, int* sysErr) {
    process_log_entry("unix_GenerateJVMThreadDump()");
    int err = send_signal(data, SIGQUIT);
    int result = PROC_SUCCESS;
    if (err == 0)
        *sysErr = 0;
    else
        result = judge_refusal(data, err, sysErr);
    process_log_exit("unix_GenerateJVMThreadDump()");
    return result;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_stop(JNIEnv* env, jobject,
                                                                             jlong handle) {
    signal_native(
        env, handle, "UnixProcessGlue_stop()", "Error stopping process. ", [](UnixProcessData* d, int* e) {
            int alive = load_field(d->isAlive);
            process_log("Trying to stop process (PID): [%s].  Process state is: [%d]\n", d->pid, alive);
            return alive == 0 ? PROC_SUCCESS : unix_StopProcess(d, e);
        });
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_kill(JNIEnv* env, jobject,
                                                                             jlong handle) {
    signal_native(env, handle, "UnixProcessGlue_kill()", "Error terminating process. ",
                  [](UnixProcessData* d, int* e) {
                      process_log("Trying to kill process (PID): [%s].  Process state is: [%d]\n", d->pid,
                                  load_field(d->isAlive));
                      return unix_KillProcess(d, e);
                  });
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_pokeVMThreadDump(JNIEnv* env, jobject,
                                                                                         jlong handle) {
    signal_native(env, handle, "UnixProcessGlue_pokeVMThreadDump()", "Error causing JVM dump. ",
                  unix_GenerateJVMThreadDump);
}
