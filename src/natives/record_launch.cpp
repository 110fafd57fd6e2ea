#include "natives/record_launch.h"

#include <cerrno>
#include <cstdio>

#include "quillon/launch.h"
#include "supervision/supervision_internal.h"

int launch_into_record(LaunchRequest& request, UnixProcessData* data, int* sysErr) {
    LaunchOutcome outcome = launch(request);
    if (outcome.pid != 0) snprintf(data->pid, kPidTextSize, "%d", outcome.pid);
    if (outcome.ok() && !attach_launched_entry(data, outcome.pid, outcome.pidfd, outcome.watchdogToken)) {
        abandon_launch(outcome, request.detached);
        outcome.exec.result = PROC_OUT_OF_MEMORY;
        outcome.exec.sysErr = ENOMEM;
    }
    data->isAlive = outcome.ok() ? 1 : 0;
    *sysErr = outcome.exec.sysErr;
    return outcome.exec.result;
}

int spawn_request(LaunchRequest& request, UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_spawnProcess()");
    if (record_pid(data) != 0) return PROC_SUCCESS;
    process_log(request.detached ? "Calling unix_CreateDetachedProcess.\n" : "Calling unix_CreateProcess.\n");
    int result = launch_into_record(request, data, sysErr);
    process_log("Result from spawn was: [%d].\n", result);
    return result;
}

UnixProcessData* record_of_launch(LaunchOutcome& outcome) {
    UnixProcessData* data = new_record();
    if (data == nullptr) return nullptr;
    snprintf(data->pid, kPidTextSize, "%d", outcome.pid);
    if (!attach_launched_entry(data, outcome.pid, outcome.pidfd, outcome.watchdogToken)) {
        destroy_record(data);
        return nullptr;
    }
    data->isAlive = 1;
    return data;
}

QUILLON_API int unix_CreateProcess(const char* executable, char** arguments, char** environment,
                                   const char* workingDirectory, int64_t priority, char** stdFiles,
                                   int64_t fileMask, const char* groupName, const char* userName,
                                   int processGroup, UnixProcessData* data, int* sysErr) {
    LaunchRequest request;
    request_from_arguments(&request, executable, arguments, environment, workingDirectory, priority, stdFiles,
                           fileMask, groupName, userName, processGroup);
    return launch_into_record(request, data, sysErr);
}

// The same arguments as unix_CreateProcess.
QUILLON_API int unix_CreateDetachedProcess(const char* executable, char** arguments, char** environment,
                                           const char* workingDirectory, int64_t priority, char** stdFiles,
                                           int64_t fileMask, const char* groupName, const char* userName,
                                           int processGroup, UnixProcessData* data, int* sysErr) {
    LaunchRequest request;
    request.detached = true;
    request_from_arguments(&request, executable, arguments, environment, workingDirectory, priority, stdFiles,
                           fileMask, groupName, userName, processGroup);
    return launch_into_record(request, data, sysErr);
}

QUILLON_API int unix_spawnProcess(UnixProcessData* data, int detached, int* sysErr) {
    LaunchRequest request;
    request_from_arguments(&request, data->executable, data->arguments, data->environment,
                           data->workingDirectory, data->priority, data->stdFiles, data->fileMask,
                           data->groupName, data->userName, data->processGroup);
    request.detached = detached != 0;
    return spawn_request(request, data, sysErr);
}
