// The attached launch: the new program is a direct child; a child whose launch failed is killed and
// reaped before the call returns.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

namespace {
constexpr const char* kLabel = "unix_CreateProcess()";

void kill_and_reap(int pid) {
    while (kill(pid, SIGKILL) == -1 && errno == EINTR) {
    }
    while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
}
} // namespace

char** GenerateCmdLine(char** arguments, const char* executable) {
    process_log_entry("GenerateCmdLine()");
    process_log("Checking command line arg array being passed in.  Pointer value is: [0x%x]\n",
                trace_ptr(arguments));
    size_t count = 0;
    while (arguments != nullptr && arguments[count] != nullptr)
        ++count;
    auto** cmdLine = static_cast<char**>(malloc((count + 2) * sizeof(char*)));
    if (cmdLine != nullptr) {
        size_t length = strlen(executable);
        cmdLine[0] = static_cast<char*>(malloc(length + 1));
        if (cmdLine[0] == nullptr) {
            free(cmdLine);
            cmdLine = nullptr;
        } else {
            memcpy(cmdLine[0], executable, length + 1);
            for (size_t i = 0; i < count; ++i)
                cmdLine[i + 1] = arguments[i];
            cmdLine[count + 1] = nullptr;
        }
    }
    if (cmdLine == nullptr) process_err("Unable to initialize commandline arguments, ENOMEM\n");
    process_log_exit("GenerateCmdLine()");
    return cmdLine;
}

void FreeCmdLine(char** cmdLine) {
    process_log_entry("FreeCmdLine()");
    if (cmdLine != nullptr) {
        free(cmdLine[0]);
        free(cmdLine);
    }
    process_log_exit("FreeCmdLine()");
}

int BeginLaunch(char** arguments, const char* executable, char*** cmdLine, int channel[2], int* sysErr) {
    *cmdLine = GenerateCmdLine(arguments, executable);
    if (*cmdLine == nullptr) {
        *sysErr = errno;
        return PROC_SYSTEM_ERR;
    }
    *sysErr = 0;
    if (InitializePipe(channel, sysErr) != PROC_SUCCESS) {
        FreeCmdLine(*cmdLine);
        return PROC_SYSTEM_ERR;
    }
    return PROC_SUCCESS;
}

QUILLON_API int unix_CreateProcess(const char* executable, char** arguments, char** environment,
                                   const char* workingDirectory, int64_t priority, char** stdFiles,
                                   int64_t fileMask, const char* groupName, const char* userName,
                                   int processGroup, UnixProcessData* data, int* sysErr) {
    process_log_entry(kLabel);
    char** cmdLine;
    int channel[2];
    if (BeginLaunch(arguments, executable, &cmdLine, channel, sysErr) != PROC_SUCCESS) {
        process_log_exit(kLabel);
        return PROC_SYSTEM_ERR;
    }
    RegistryAnswers answers;
    PrepareRegistryAnswers(&answers, userName, groupName);

    pid_t pid = fork();
    snprintf(data->pid, kPidTextSize, "%d", pid);
    int result;
    if (pid == -1) {
        *sysErr = errno;
        FreeCmdLine(cmdLine);
        process_err("FORK failed.  ERRNO: [%d]\n", *sysErr);
        result = (*sysErr == ENOMEM || *sysErr == EAGAIN) ? PROC_OUT_OF_MEMORY : PROC_SYSTEM_ERR;
        close(channel[0]);
        close(channel[1]);
        ReleaseRegistryAnswers(&answers);
        process_log_exit(kLabel);
        return result;
    }
    if (pid == 0) {
        UseRegistryAnswers(&answers);
        RunChild({executable, cmdLine, environment, workingDirectory, priority, stdFiles, fileMask, groupName,
                  userName, processGroup, channel[1], true});
    }
    *sysErr = 0;
    result = WaitForExecOutcome(channel, sysErr);
    ReleaseRegistryAnswers(&answers);
    process_log("WaitForExecOutcome completed.  Return value was: [%d] and sysErr was: [%d]\n", result,
                *sysErr);
    if (result != PROC_SUCCESS) kill_and_reap(record_pid(data));
    data->isAlive = result == PROC_SUCCESS ? 1 : 0;
    FreeCmdLine(cmdLine);
    process_log_exit(kLabel);
    return result;
}
