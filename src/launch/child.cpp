// The new process, from its creation to execve: signals, context, descriptor sweep, exec; or the failure
// record over the exec-outcome channel and exit status 255. Until its exec it shares the launcher's
// memory, so it only makes raw system calls over the request and writes nothing but its own stack.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

#include "launch/launch_internal.h"
#include "launch/raw_syscall.h"

namespace {
constexpr const char* kDefaultSearchPath = "/bin:/usr/bin";

// The JVM's signal handlers must never run in the new process: every caught signal goes back to its
// default (ignored ones stay ignored, as exec would leave them).
NEW_PROCESS_CODE void reset_signal_handlers() {
    for (int signal = 1; signal < NSIG; ++signal)
        if (signal != SIGKILL && signal != SIGSTOP) sys_set_disposition(signal, SIG_DFL, true);
}

// Every signal stays blocked in the new process until right before its exec. One that dumps core, left at its
// default and sent meanwhile, is taken off here rather than delivered: its dump would start while the process
// still shares the launcher's memory, and before Linux 5.16 such a dump kills every process sharing it. The
// signal taken, or else 0 once the launching thread's mask is restored, which delivers any other one.
NEW_PROCESS_CODE int unblock_signals(const LaunchRequest& request) {
    constexpr int kDumping[] = {SIGQUIT, SIGILL,  SIGTRAP, SIGABRT, SIGBUS,
                                SIGFPE,  SIGSEGV, SIGXCPU, SIGXFSZ, SIGSYS};
    unsigned long restored = 0;
    memcpy(&restored, &request.signalMask, sizeof restored);
    unsigned long dumping = 0;
    for (int signal : kDumping) {
        unsigned long bit = 1UL << (signal - 1);
        void (*handler)(int) = SIG_IGN;
        if ((restored & bit) == 0 && sys_get_disposition(signal, &handler) == 0 && handler == SIG_DFL)
            dumping |= bit;
    }
    long taken = dumping != 0 ? sys_take_pending_signal(&dumping) : 0;
    if (taken > 0) return static_cast<int>(taken);
    sys_set_signal_mask(&request.signalMask);
    return 0;
}

// Closes [first, last]: close_range, or one close per number below the limit from sysconf where the kernel
// has no close_range.
NEW_PROCESS_CODE void close_span(unsigned first, unsigned last, int openMax) {
    if (first > last || sys_close_range(first, last) == 0) return;
    for (unsigned fd = first; fd <= last && fd < static_cast<unsigned>(openMax); ++fd)
        sys_close(static_cast<int>(fd));
}

// Closes every descriptor from 3 up but those in `keep` (ascending; numbers below 3 are ignored).
NEW_PROCESS_CODE void close_descriptors_except(const int* keep, int count, int openMax) {
    unsigned first = 3;
    for (int i = 0; i < count; ++i) {
        if (keep[i] < static_cast<int>(first)) continue;
        close_span(first, static_cast<unsigned>(keep[i]) - 1, openMax);
        first = static_cast<unsigned>(keep[i]) + 1;
    }
    close_span(first, ~0u, openMax);
}

// Before any step that can block (an open of a FIFO, a chdir into a hung mount), the new process lets go of
// what it copied from the launcher: other launches' exec-outcome channels among them, whose end of file
// must not wait for this process.
NEW_PROCESS_CODE void close_inherited_descriptors(const LaunchRequest& request) {
    int keep[5] = {request.writeEnd, request.gate, -1, -1, -1};
    int count = request.gate >= 0 ? 2 : 1;
    for (const StdPlan& plan : request.plans)
        if (plan.kind == StdPlan::Kind::Pipe || plan.kind == StdPlan::Kind::Descriptor)
            keep[count++] = plan.pipeEnd;
    for (int i = 1; i < count; ++i) // a handful of numbers: an insertion sort
        for (int j = i; j > 0 && keep[j - 1] > keep[j]; --j)
            std::swap(keep[j - 1], keep[j]);
    close_descriptors_except(keep, count, request.openMax);
}

NEW_PROCESS_CODE void dump_launch(const LaunchRequest& request, const ChildContext& context) {
    child_log(context, "New process will be created from executable: [%s]\n", request.executable);
    child_log(context, "Arguments to the binary are:\n");
    for (int i = 0; request.cmdLine[i] != nullptr; ++i)
        child_log(context, "Executable argument [%d]: [%s]\n", i, request.cmdLine[i]);
    child_log(context, "Environment the process sees:\n");
    for (int i = 0; request.envp[i] != nullptr && request.envp[i][0] != 0; ++i)
        child_log(context, "Environment entry [%d]: [%s]\n", i, request.envp[i]);
}

// execve, and a program without a format the kernel knows run by /bin/sh as a script.
NEW_PROCESS_CODE long exec_file(const LaunchRequest& request, const char* path) {
    long result = sys_execve(path, request.cmdLine, request.envp);
    if (result == -ENOEXEC) {
        request.scriptArgv[1] = const_cast<char*>(path);
        sys_execve(request.scriptArgv[0], request.scriptArgv, request.envp);
    }
    return result;
}

// The program by its name: the name itself when it holds a slash, else each directory of the new
// environment's PATH in turn, as execvp searches. The errno when nothing could be run.
NEW_PROCESS_CODE int exec_program(const LaunchRequest& request) {
    const char* file = request.executable;
    if (*file == 0) return ENOENT;
    if (strchr(file, '/') != nullptr) return static_cast<int>(-exec_file(request, file));
    size_t fileLength = strlen(file);
    if (fileLength > NAME_MAX) return ENAMETOOLONG;
    const char* path = request.searchPath != nullptr ? request.searchPath : kDefaultSearchPath;
    char buffer[PATH_MAX + NAME_MAX + 2];
    bool deniedSomewhere = false;
    long result = -ENOENT;
    for (const char* dir = path;; ++dir) {
        const char* end = strchrnul(dir, ':');
        size_t dirLength = static_cast<size_t>(end - dir);
        if (dirLength < PATH_MAX) {
            memcpy(buffer, dir, dirLength);
            buffer[dirLength] = '/';
            memcpy(buffer + dirLength + (dirLength > 0 ? 1 : 0), file, fileLength + 1); // empty: the current one
            result = exec_file(request, buffer);
            switch (-result) {
            case EACCES:
                deniedSomewhere = true;
                break;
            case ENOENT:
            case ESTALE:
            case ENOTDIR:
            case ENODEV:
            case ETIMEDOUT:
                break;
            default: // found, and it failed for another reason
                return static_cast<int>(-result);
            }
        }
        if (*end == 0) break;
        dir = end;
    }
    return deniedSomewhere ? EACCES : static_cast<int>(-result);
}

// The launcher lets a process that must end with it exec only once it knows the process: a byte comes. End
// of file instead: the launcher failed, or ended meanwhile. Whether the byte came.
NEW_PROCESS_CODE bool gate_opens(int gate) {
    char byte;
    long got;
    do {
        got = sys_read(gate, &byte, 1);
    } while (got == -EINTR);
    return got == 1;
}

// The failure record over the channel, in one write, and the end. A process that must end with the launcher
// and has not passed its gate yet (`gate`, else -1) waits there first, for the byte or end of file: until the
// launcher holds its pidfd nothing may reap it, or the launcher would see it gone (or its PID taken by
// another process) instead of its failure. Nothing of the request is read once the record is out: the
// launcher may free it then.
NEW_PROCESS_CODE [[noreturn]] void report_failure(const LaunchRequest& request, const ChildContext& context,
                                                  const ExecOutcome& failure, int gate) {
    char text[64];
    child_err(context, "Unable to launch process.  An error occurred.  Return value: [%d] errno: [%d] [%s]\n",
              failure.result, failure.sysErr, error_text(failure.sysErr, text));
    const int record[4] = {failure.sysErr, failure.result, failure.step, failure.detail};
    sys_write(request.writeEnd, record, sizeof record);
    if (gate >= 0) gate_opens(gate);
    sys_exit(255);
}

NEW_PROCESS_CODE ExecOutcome failed(int result, int sysErr, int step, int detail = 0) {
    return {result, sysErr, step, detail};
}

// Writes the process into the group whose cgroup.procs is `procs`.
NEW_PROCESS_CODE ExecOutcome join_group(int procs, int detail) {
    long written = sys_write(procs, "0", 1);
    if (written == 1) return {};
    return failed(PROC_SYSTEM_ERR, written < 0 ? static_cast<int>(-written) : EIO, kStepCgroup, detail);
}

// Joins the groups of its contained tree that it could not be started in: before anything else, so that
// nothing it does afterwards runs outside them.
NEW_PROCESS_CODE ExecOutcome join_groups(const LaunchRequest& request, int ownGroupProcs) {
    ExecOutcome joined = ownGroupProcs >= 0 ? join_group(ownGroupProcs, kJoinDetail + 2) : ExecOutcome{};
    for (int i = 0; i < 3 && joined.result == PROC_SUCCESS; ++i)
        if (request.joins[i] >= 0) joined = join_group(request.joins[i], kJoinDetail + i);
    return joined;
}

// The resource limits asked for, set while the process may still raise a hard limit (before its user
// changes).
NEW_PROCESS_CODE ExecOutcome set_limits(const LaunchRequest& request) {
    for (int i = 0; i < request.limitCount; ++i) {
        const LimitRequest& limit = request.limits[i];
        rlimit value = {static_cast<rlim_t>(limit.soft), static_cast<rlim_t>(limit.hard)};
        long result = sys_prlimit(limit.resource, &value, nullptr);
        if (result < 0) return failed(PROC_SYSTEM_ERR, static_cast<int>(-result), kStepLimit, limit.resource);
    }
    return {};
}

// Before its exec, a process that must end with the launcher waits at its gate; without the byte it ends.
NEW_PROCESS_CODE void pass_gate(const LaunchRequest& request) {
    if (request.gate >= 0 && !gate_opens(request.gate)) sys_exit(255);
}

// nice, when one is asked for. A change the system refuses or limits leaves the process where it is; that
// is no failure.
NEW_PROCESS_CODE ExecOutcome set_priority(const LaunchRequest& request, const ChildContext& context) {
    long reading = sys_getpriority();
    long current = 20 - reading;
    child_log(context, "Trying to set process priority to computed value of: [%d]\n",
              static_cast<int>(*request.nice - current));
    if (reading < 0) {
        child_err(context, "Error getting the current priority\n");
        return failed(PROC_INVALID_PRIORITY, static_cast<int>(-reading), kStepPriority);
    }
    sys_setpriority(*request.nice);
    return {};
}

// The group stage fails on the named group, or on the user's own when none is named.
NEW_PROCESS_CODE ExecOutcome privilege_failure(const LaunchRequest& request, int result, int sysErr) {
    if (result == PROC_INVALID_USERNAME) return failed(result, sysErr, kStepUser);
    return failed(result, sysErr, kStepGroup, request.groupName == nullptr ? 1 : 0);
}
} // namespace

NEW_PROCESS_CODE const char* error_text(int err, char (&buffer)[64]) {
    const char* text = strerrordesc_np(err);
    if (text != nullptr) return text;
    snprintf(buffer, sizeof buffer, "Unknown error %d", err);
    return buffer;
}

NEW_PROCESS_CODE ExecOutcome SetupChildContext(const LaunchRequest& request, const ChildContext& context) {
    ChildTraceScope trace(context, "SetupChildContext()");
    ExecOutcome outcome = request.nice ? set_priority(request, context) : ExecOutcome{};
    if (outcome.result == PROC_SUCCESS) {
        if (request.fileMask) sys_umask(*request.fileMask);
        int sysErr = 0;
        int result = set_privilege_ids(context, request.privilege, &sysErr);
        if (result != PROC_SUCCESS) outcome = privilege_failure(request, result, sysErr);
    }
    if (outcome.result == PROC_SUCCESS && request.workingDirectory != nullptr) {
        long changed = sys_chdir(request.workingDirectory);
        if (changed < 0) {
            child_err(context, "Unable to change current working directory to: [%s]\n", request.workingDirectory);
            outcome = failed(PROC_INVALID_DIRECTORY, static_cast<int>(-changed), kStepDirectory);
        }
    }
    if (outcome.result == PROC_SUCCESS && !request.keepProcessGroup) {
        child_log(context, "Trying to set process group to: [%d]\n", request.processGroup);
        long joined = sys_setpgid(0, request.processGroup);
        if (joined < 0) {
            child_err(context, "Failed setting of process group to PGID: [%d]\n", request.processGroup);
            outcome = failed(PROC_INVALID_PROCESS_GROUP, static_cast<int>(-joined), kStepProcessGroup);
        }
    }
    if (outcome.result != PROC_SUCCESS) {
        trace.skip_exit(); // the exit line marks success
        return outcome;
    }
    return SetupChildStdHandles(request, context);
}

NEW_PROCESS_CODE void run_new_process(const NewProcessStart& start) {
    const LaunchRequest& request = *start.request;
    ChildContext context = request.context; // a copy of its own: the trace settings change below
    reset_signal_handlers();
    int pid = static_cast<int>(sys_getpid());
    child_log(context, "Process ID being reset for Linux after FORK.  Pid is: %d\n", pid);
    context.tracePid = pid;
    context.debug = context.debugAfterReset;
    context.entryExit = context.entryExitAfterReset;
    if (request.ignoreJobControlSignals) {
        sys_set_disposition(SIGTTOU, SIG_IGN, false);
        sys_set_disposition(SIGTTIN, SIG_IGN, false);
    }
    ExecOutcome joined = join_groups(request, start.ownGroupProcs);
    if (joined.result != PROC_SUCCESS) report_failure(request, context, joined, request.gate);
    close_inherited_descriptors(request);

    ExecOutcome limited = set_limits(request);
    if (limited.result != PROC_SUCCESS) report_failure(request, context, limited, request.gate);
    ExecOutcome setup = SetupChildContext(request, context);
    if (setup.result != PROC_SUCCESS) report_failure(request, context, setup, request.gate);
    if (start.attached)
        child_log(context, "Past SetupChildContext.  Return value was: [%d] and sysErr was: [%d]\n",
                  setup.result, setup.sysErr);
    const int kept[2] = {request.writeEnd < request.gate ? request.writeEnd : request.gate,
                         request.writeEnd < request.gate ? request.gate : request.writeEnd};
    if (request.gate >= 0)
        close_descriptors_except(kept, 2, request.openMax);
    else
        close_descriptors_except(&request.writeEnd, 1, request.openMax);
    if (context.debug) dump_launch(request, context);
    pass_gate(request);
    int dumping = unblock_signals(request);
    if (dumping != 0)
        report_failure(request, context, failed(PROC_SYSTEM_ERR, EINTR, kStepExec, dumping), -1);

    int err = exec_program(request);
    int result = result_for_errno(err, {ENOENT, EACCES, ENOEXEC, EPERM}, PROC_INVALID_EXECUTABLE);
    // Past the gate: the launcher holds its pidfd, the process may end at once.
    report_failure(request, context, failed(result, err, kStepExec), -1);
}
