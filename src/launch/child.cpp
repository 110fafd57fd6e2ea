// The new process, from fork to execvp: context, descriptor sweep, environment, exec; or the failure
// record over the exec-outcome channel and _exit(-1).
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

extern char** environ;

namespace {
constexpr const char* kLabel = "SetupChildContext()";

int exec_failure_result(int err) {
    switch (err) {
    case ENOENT:
    case EACCES:
    case ENOEXEC:
    case EPERM:
        return PROC_INVALID_EXECUTABLE;
    case ENFILE:
    case EMFILE:
        return PROC_OUT_OF_FILE_HANDLES;
    case ENOMEM:
        return PROC_OUT_OF_MEMORY;
    default:
        return PROC_SYSTEM_ERR;
    }
}

// Closes [first, last]; the kernel's close_range when it has one, else one close per number.
void close_span(int first, int last) {
    if (first > last) return;
    if (syscall(SYS_close_range, static_cast<unsigned>(first), static_cast<unsigned>(last), 0u) == 0) return;
    for (int fd = first; fd <= last; ++fd)
        close(fd);
}

void dump_launch(const char* executable, char** cmdLine) {
    process_log("New process will be created from executable: [%s]\n", executable);
    process_log("Arguments to the binary are:\n");
    for (int i = 0; cmdLine[i] != nullptr; ++i)
        process_log("Executable argument [%d]: [%s]\n", i, cmdLine[i]);
    if (environ == nullptr) return;
    process_log("Environment the process sees:\n");
    for (int i = 0; environ[i] != nullptr && environ[i][0] != 0; ++i)
        process_log("Environment entry [%d]: [%s]\n", i, environ[i]);
}

[[noreturn]] void report_failure(int writeEnd, int result, int sysErr) {
    process_err("Unable to launch process.  An error occurred.  Return value: [%d] errno: [%d] [%s]\n",
                result, sysErr, strerror(sysErr));
    ssize_t ignored = write(writeEnd, &sysErr, sizeof sysErr);
    ignored = write(writeEnd, &result, sizeof result);
    (void)ignored;
    _exit(-1);
}
} // namespace

void CloseDescriptorsExcept(int keep) {
    int limit = static_cast<int>(sysconf(_SC_OPEN_MAX));
    if (keep < 3 || keep >= limit) {
        close_span(3, limit - 1);
        return;
    }
    close_span(3, keep - 1);
    close_span(keep + 1, limit - 1);
}

int SetupChildContext(const char* workingDirectory, int64_t priority, char** stdFiles, int64_t fileMask,
                      const char* groupName, const char* userName, int processGroup, int* sysErr) {
    errno = 0;
    int current = nice(0);
    process_log_entry(kLabel);
    const int wanted = static_cast<int>(priority);
    process_log("Trying to set process priority to computed value of: [%d]\n", wanted - (current + 20));
    if (current == -1 && errno != 0) {
        *sysErr = errno;
        process_err("Error getting the current priority\n");
        return PROC_INVALID_PRIORITY;
    }
    // A change the system refuses or limits leaves the process where it is; that is no failure.
    if (nice(wanted - current - 20) == -1) errno = 0;
    umask(static_cast<mode_t>(fileMask));

    int result = SetProcessPrivilegeIDs(userName, groupName, sysErr);
    if (result != PROC_SUCCESS) return result;
    if (workingDirectory != nullptr && chdir(workingDirectory) < 0) {
        *sysErr = errno;
        process_err("Unable to change current working directory to: [%s]\n", workingDirectory);
        return PROC_INVALID_DIRECTORY;
    }
    process_log("Trying to set process group to: [%d]\n", processGroup);
    if (setpgid(0, processGroup) == -1) {
        *sysErr = errno;
        process_err("Failed setting of process group to PGID: [%d]\n", processGroup);
        return PROC_INVALID_PROCESS_GROUP;
    }
    result = SetupChildStdHandles(workingDirectory, stdFiles, sysErr);
    process_log_exit(kLabel);
    return result;
}

void RunChild(const ChildRequest& request) {
    int sysErr = 0;
    linux_reset_pid();
    process_log("Process ID being reset for Linux after FORK.  Pid is: %d\n", linux_getpid());
    process_log_init_dbg();
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTTIN, SIG_IGN);

    int result =
        SetupChildContext(request.workingDirectory, request.priority, request.stdFiles, request.fileMask,
                          request.groupName, request.userName, request.processGroup, &sysErr);
    if (result != PROC_SUCCESS) report_failure(request.writeEnd, result, sysErr);
    if (request.attached)
        process_log("Past SetupChildContext.  Return value was: [%d] and sysErr was: [%d]\n", result, sysErr);

    fcntl(request.writeEnd, F_SETFD, FD_CLOEXEC);
    CloseDescriptorsExcept(request.writeEnd);
    if (request.environment != nullptr) MergeEnvironment(request.environment);
    if (process_log_is_dbg_enabled()) dump_launch(request.executable, request.cmdLine);

    execvp(request.executable, request.cmdLine);
    sysErr = errno;
    report_failure(request.writeEnd, exec_failure_result(sysErr), sysErr);
}
