// Process handles and supervision: the record behind a Java handle, liveness, waiting, signals.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <pthread.h>

#include "quillon/export.h"

constexpr unsigned SLEEP_INTERVAL = 2;
constexpr size_t kPidTextSize = 128;

struct UnixProcessData {
    int32_t exitCode;
    char pid[kPidTextSize];
    int32_t isAlive;
    // Spawn data: live only for the length of the create native.
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
    // A status word the probe collected while stateMutex was busy, tagged with kHeldStatusTag;
    // 0 when none. Stored into the record by the next holder of the lock.
    int32_t heldStatus;
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

// A zero-filled record with both mutexes initialised, from malloc; null when the heap fails.
UnixProcessData* NewProcessData();
// The PID text parsed with atoi, as every use does.
inline int record_pid(const UnixProcessData* data) {
    return atoi(data->pid);
}

// Lock-free reads and locked writes of the fields that natives read without the mutex.
inline int32_t load_field(const int32_t& field) {
    return std::atomic_ref<int32_t>(const_cast<int32_t&>(field)).load();
}
inline uint32_t load_field(const uint32_t& field) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(field)).load();
}
inline void store_field(int32_t& field, int32_t value) {
    std::atomic_ref<int32_t>(field).store(value);
}
inline void store_field(uint32_t& field, uint32_t value) {
    std::atomic_ref<uint32_t>(field).store(value);
}

// Decodes a collected status word into exitCode (exit status, or the number of the ending signal);
// false for a stopped or continued process, whose exitCode stays. The caller holds stateMutex.
bool StoreExitCode(UnixProcessData* data, int status);

// stateMutex, blocking; taking and releasing it stores a status held over by the probe.
void lock_state(UnixProcessData* data);
void unlock_state(UnixProcessData* data);
