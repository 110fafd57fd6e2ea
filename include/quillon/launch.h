// Process launch: exec-outcome channel, additive environment, the child's setup, attached and
// detached launches.
#pragma once

#include <cstdint>
#include <sys/types.h>

#include "quillon/export.h"
#include "quillon/supervision.h"

// Exported launch operations.
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

// Exec-outcome channel, in the launching process.
int InitializePipe(int channel[2], int* sysErr);
int WaitForExecOutcome(int channel[2], int* sysErr);
int64_t unix_getStartProcessTimeout();

// Command line: a heap copy of the executable in entry 0, the argument strings shared behind it.
char** GenerateCmdLine(char** arguments, const char* executable);
void FreeCmdLine(char** cmdLine);
// The first two steps of both launches: the command line, then the exec-outcome channel. On failure
// nothing is left held and the result is PROC_SYSTEM_ERR with sysErr set.
int BeginLaunch(char** arguments, const char* executable, char*** cmdLine, int channel[2], int* sysErr);

// The user and group registry as the child will need it, read in the launching process before the
// fork: a child must not enter the registry, whose locks another thread may have held at the fork.
struct RegistryAnswers {
    bool groupFound;
    gid_t groupGid;
    bool userFound;
    int userErrno;
    uid_t userUid;
    gid_t userGid;
    int supplementaryCount; // -1: not prepared, initgroups itself is used
    int supplementaryErrno;
    gid_t* supplementary; // malloc'd
};
void PrepareRegistryAnswers(RegistryAnswers* answers, const char* userName, const char* groupName);
void ReleaseRegistryAnswers(RegistryAnswers* answers);
// In the child: answer the privilege steps from these instead of the registry.
void UseRegistryAnswers(const RegistryAnswers* answers);

// Everything the new process needs between fork and exec.
struct ChildRequest {
    const char* executable;
    char** cmdLine;
    char** environment;
    const char* workingDirectory;
    int64_t priority;
    char** stdFiles;
    int64_t fileMask;
    const char* groupName;
    const char* userName;
    int processGroup;
    int writeEnd;
    bool attached;
};

int SetupChildStdHandles(const char* workingDirectory, char** stdFiles, int* sysErr);
int SetupChildContext(const char* workingDirectory, int64_t priority, char** stdFiles, int64_t fileMask,
                      const char* groupName, const char* userName, int processGroup, int* sysErr);
// The new process's whole sequence from fork to execvp; on failure it reports and exits with 255.
[[noreturn]] void RunChild(const ChildRequest& request);
// Applies the request's environment to environ, merging the additive keys.
void MergeEnvironment(char** environment);
// Closes every descriptor from 3 below the limit except `keep`.
void CloseDescriptorsExcept(int keep);
// Moves a descriptor the launch opened for itself above 2, so that it never stands in for a closed
// standard descriptor of the host. Returns the descriptor to use.
int KeepAboveStandard(int fd, bool closeOnExec);
