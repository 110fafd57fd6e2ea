// The detached launch: an intermediate process forks the new program, reports its PID over the pid
// channel and exits; init adopts the program.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

namespace {
constexpr const char* kLabel = "unix_CreateDetachedProcess()";

void close_all(const int channel[2], const int pidChannel[2]) {
    close(channel[0]);
    close(channel[1]);
    close(pidChannel[0]);
    close(pidChannel[1]);
}

bool out_of_memory(int err) {
    return err == ENOMEM || err == EAGAIN;
}

[[noreturn]] void run_intermediate(const ChildRequest& request, const int channel[2],
                                   const int pidChannel[2]) {
    pid_t pid = fork();
    if (pid == 0) RunChild(request);
    if (pid == -1) {
        int err = errno;
        if (out_of_memory(err))
            process_err("Unable to fork second process, out of memory or over limit. errno=[%d]", err);
        else
            process_err("Unable to fork second process. errno=[%d]", err);
        close_all(channel, pidChannel);
        _exit(-1);
    }
    ssize_t ignored = write(pidChannel[1], &pid, sizeof pid);
    (void)ignored;
    close(pidChannel[0]);
    close(pidChannel[1]);
    close(channel[0]);
    close(channel[1]);
    _exit(0);
}

int read_pid(int fd, int* pid) {
    ssize_t got;
    do {
        got = read(fd, pid, sizeof *pid);
    } while (got == -1 && errno == EINTR);
    return static_cast<int>(got);
}

void reap(pid_t pid) {
    int status;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
}
} // namespace

QUILLON_API int unix_CreateDetachedProcess(const char* executable, char** arguments, char** environment,
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
    int pidChannel[2];
    if (pipe(pidChannel) == -1) {
        int err = errno;
        int result = PROC_SYSTEM_ERR;
        if (err == ENFILE || err == EMFILE) {
            process_err("Error creating pipe, out of file handles. errno=[%d]\n", err);
            result = PROC_OUT_OF_FILE_HANDLES;
        } else {
            process_err("Error creating pipe. errno=[%d]\n", err);
        }
        close(channel[0]);
        close(channel[1]);
        FreeCmdLine(cmdLine);
        process_log_exit(kLabel);
        return result;
    }
    pidChannel[0] = KeepAboveStandard(pidChannel[0], false);
    pidChannel[1] = KeepAboveStandard(pidChannel[1], false);

    RegistryAnswers answers;
    PrepareRegistryAnswers(&answers, userName, groupName);
    pid_t intermediate = fork();
    if (intermediate == 0) {
        UseRegistryAnswers(&answers);
        run_intermediate({executable, cmdLine, environment, workingDirectory, priority, stdFiles, fileMask,
                          groupName, userName, processGroup, channel[1], false},
                         channel, pidChannel);
    }
    ReleaseRegistryAnswers(&answers);
    if (intermediate == -1) {
        *sysErr = errno;
        close_all(channel, pidChannel);
        FreeCmdLine(cmdLine);
        int result = PROC_SYSTEM_ERR;
        if (out_of_memory(*sysErr)) {
            process_err("Unable to fork a new process, out of memory or over limit. errno=[%d]", *sysErr);
            result = PROC_OUT_OF_MEMORY;
        } else {
            process_err("Unable to fork a new process. errno=[%d]", *sysErr);
        }
        process_log_exit(kLabel);
        return result;
    }

    close(pidChannel[1]);
    int pid = 0;
    int got = read_pid(pidChannel[0], &pid);
    close(pidChannel[0]);
    if (got != static_cast<int>(sizeof pid)) {
        close(channel[0]);
        close(channel[1]);
        reap(intermediate);
        FreeCmdLine(cmdLine);
        process_log_exit(kLabel);
        return PROC_SYSTEM_ERR;
    }
    reap(intermediate);
    snprintf(data->pid, kPidTextSize, "%d", pid);

    *sysErr = 0;
    int result = WaitForExecOutcome(channel, sysErr);
    if (result == PROC_CREATE_TIMEOUT)
        while (kill(record_pid(data), SIGKILL) == -1 && errno == EINTR) {
        }
    data->isAlive = result == PROC_SUCCESS ? 1 : 0;
    FreeCmdLine(cmdLine);
    process_log_exit(kLabel);
    return result;
}
