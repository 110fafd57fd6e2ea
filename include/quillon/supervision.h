// Process handles and supervision: the record behind a Java handle, liveness, waiting, signals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "quillon/export.h"

constexpr size_t kPidTextSize = 128;

// What every record on one process shares: its pidfd and how it ended (supervision's own business).
struct ProcessEntry;

struct UnixProcessData {
    int32_t exitCode;
    char pid[kPidTextSize];
    int32_t isAlive;
    // Spawn data, read by unix_spawnProcess and released by unix_DeallocateProcessSpawnData.
    char* executable;
    char** arguments;
    char** environment;
    char* workingDirectory;
    int64_t priority;
    char** stdFiles;
    int64_t fileMask;
    char* groupName;
    char* userName;
    int32_t processGroup;
    // Supervision state.
    uint32_t waiterCount;
    pthread_mutex_t stateMutex;
    pthread_mutex_t waiterMutex;
    char* extraName;
    pthread_cond_t waitersGone; // with waiterMutex: waiterCount fell to 0
    ProcessEntry* process;      // null until the record is launched or adopted
};

QUILLON_API int unix_PingProcess(UnixProcessData* data, int* sysErr);
QUILLON_API int unix_AdoptProcess(UnixProcessData* data, int* sysErr);
QUILLON_API void unix_doneWithProcess(UnixProcessData* data, int* sysErr);

QUILLON_API int unix_WaitForProcessTermination(UnixProcessData* data, int* sysErr);
QUILLON_API int unix_WaitForProcessTerminationWithTimeout(UnixProcessData* data, uint32_t timeoutSeconds,
                                                          int* sysErr);
QUILLON_API int unix_GetProcessExitCode(UnixProcessData* data, int* sysErr);

QUILLON_API int unix_StopProcess(UnixProcessData* data, int* sysErr);
QUILLON_API int unix_KillProcess(UnixProcessData* data, int* sysErr);
QUILLON_API int unix_GenerateJVMThreadDump(UnixProcessData* data, int* sysErr);
