// Process launch: the additive environment, the new process's identity, attached and detached launches.
#pragma once

#include <cstdint>

#include "quillon/export.h"
#include "quillon/supervision.h"

QUILLON_API void GetKey(const char* entry, char* key, uint64_t size);
QUILLON_API int TestKeys(const char* first, const char* second);
QUILLON_API int GenerateAdditiveString(const char* key, char** first, char** second, char** third,
                                       char** merged);
QUILLON_API int ClearSecondaryGroups(int* sysErr);
QUILLON_API int InitSecondaryGroups(const char* userName, int gid, int* sysErr);
QUILLON_API int SetProcessPrivilegeIDs(const char* userName, const char* groupName, int* sysErr);
QUILLON_API int unix_CreateProcess(const char* executable, char** arguments, char** environment,
                                   const char* workingDirectory, int64_t priority, char** stdFiles,
                                   int64_t fileMask, const char* groupName, const char* userName,
                                   int processGroup, UnixProcessData* data, int* sysErr);
QUILLON_API int unix_CreateDetachedProcess(const char* executable, char** arguments, char** environment,
                                           const char* workingDirectory, int64_t priority, char** stdFiles,
                                           int64_t fileMask, const char* groupName, const char* userName,
                                           int processGroup, UnixProcessData* data, int* sysErr);
QUILLON_API int unix_spawnProcess(UnixProcessData* data, int detached, int* sysErr);
QUILLON_API void unix_DeallocateProcessSpawnData(UnixProcessData* data, int* sysErr);
