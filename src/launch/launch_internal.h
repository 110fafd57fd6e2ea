// A launch, inside the library: one request, resolved in the launching thread before the new process is
// made, and the new process's sequence, which only makes system calls over what the request holds.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <optional>
#include <sys/types.h>

#include "quillon/result_codes.h"
#include "runtime/arena.h"
#include "runtime/support.h"

// How a standard descriptor of the new process is asked for. The first seven are those of the Java API.
enum StdMode : int {
    kStdInherit = 0,
    kStdPipe = 1,
    kStdNull = 2,
    kStdRead = 3,
    kStdWrite = 4,
    kStdAppend = 5,
    kStdAsStdout = 6,
    kStdNamed = 7,      // a redirection name of `create`: a leading '!' truncates, anything else appends
    kStdDescriptor = 8, // a descriptor of the launcher's (a pipe between two new processes), duplicated
};

struct StdRequest {
    int mode = kStdInherit;
    const char* path = nullptr;
    int fd = -1; // kStdDescriptor
};

// One standard descriptor as the new process sets it up.
struct StdPlan {
    enum class Kind { Inherit, DevNullStdin, File, Pipe, Descriptor, AsStdout };
    Kind kind = Kind::Inherit;
    // File: the name as given (behind a '!'), the flags, and how the name was built, for the trace.
    const char* name = nullptr;
    int flags = 0;
    bool relative = false;      // joined to the working directory
    bool tooLong = false;
    bool slashAppended = false;
    int freeSpace[2] = {0, 0};  // the free space of the name buffer before and after the '/'
    char* path = nullptr;
    // Pipe: the new process's end; Descriptor: the launcher's descriptor it duplicates.
    int pipeEnd = -1;
};

// The group, supplementary groups and user of the new process, as the registry gave them beforehand.
struct PrivilegePlan {
    const char* userName = nullptr;
    const char* groupName = nullptr;
    bool groupFound = false;
    gid_t groupGid = 0;
    bool userFound = false;
    int userErrno = 0;
    uid_t userUid = 0;
    gid_t userGid = 0;
    bool forceGroupDisabled = false;
    bool loadSupplementary = false;
    int supplementaryErrno = 0;
    size_t supplementaryCount = 0;
    gid_t* supplementary = nullptr;
};

// Where a step of the new process's sequence writes its trace, and how it changes credentials.
struct ChildContext {
    int tracePid = 0;
    bool debug = false;
    bool entryExit = false;
    // The switches once the new process has read the host's trace variables again.
    bool debugAfterReset = false;
    bool entryExitAfterReset = false;
    // A step called outside a launch, in the host: it traces through the host's streams, and a change of
    // identity reaches every thread.
    bool inHost = false;
    bool silent = false; // writes nothing at all
};

// The host's trace state now, for a step that runs in the host.
ChildContext host_context();

// Where a launch failed: a step of the new process's sequence, or the launcher's side around it. `detail`
// tells which descriptor, limit or group it was. The public API names the culprit from these.
enum LaunchStep : int {
    kStepNone = 0,
    kStepLauncher = 1,   // the launching thread: the request, the channel, pipes, clone
    kStepWaitBuffer = 2, // the wait on the channel found no memory for its descriptor set
    kStepPriority = 3,
    kStepGroup = 4, // detail 1: the user's primary group, forced
    kStepUser = 5,
    kStepDirectory = 6,
    kStepProcessGroup = 7,
    kStepStdHandle = 8, // detail: the descriptor, 0 to 2
    kStepExec = 9,
    kStepCgroup = 10,   // the groups of its contained tree; detail: see kJoinDetail
    kStepLimit = 11,    // detail: the resource (RLIMIT_*)
    kStepWatchdog = 12, // the launcher could not have it ended with itself
};

// kStepCgroup's detail for a group the new process could not join: kJoinDetail + i for joins[i], and
// kJoinDetail + 2 for its own v2 group. Apart from 1 and 2, with which a refused limit names the controller
// no hierarchy carries (memory, pids), and from 0, the groups themselves.
constexpr int kJoinDetail = 3;

// A resource limit the new process sets on itself before its exec.
struct LimitRequest {
    int resource;
    uint64_t soft;
    uint64_t hard;
};
constexpr int kMaxLimits = 16;

// What the exec-outcome channel told, or what the wait on it found: a result code with its sysErr, and
// the step that failed.
struct ExecOutcome {
    int result = PROC_SUCCESS;
    int sysErr = 0;
    int step = kStepNone;
    int detail = 0;
};

struct LaunchRequest : NoCopy {
    // What the caller asks for, in native text; the caller keeps what the pointers point to.
    const char* executable = nullptr;
    char** arguments = nullptr;
    char** environment = nullptr;     // entries applied to the base: path-like keys in front of its value
    char** baseEnvironment = nullptr; // the whole environment to start from; null: the launcher's own
    const char* workingDirectory = nullptr;
    std::optional<int> nice; // absent: the launcher's; clamped to -20..19
    StdRequest std[3];
    std::optional<mode_t> fileMask; // absent: the launcher's
    const char* groupName = nullptr;
    const char* userName = nullptr;
    int processGroup = 0;
    bool keepProcessGroup = false;
    bool detached = false;
    bool ignoreJobControlSignals = true; // SIGTTIN and SIGTTOU ignored in the new process
    bool silent = false;                 // no trace line, in the launcher or the new process
    LimitRequest limits[kMaxLimits];
    int limitCount = 0;
    // A contained tree: the cgroup v2 group the new process starts in (clone3 with CLONE_INTO_CGROUP), and
    // the cgroup.procs files it writes "0" into first thing (v1 groups; the v2 one where clone3 can't start
    // it there).
    int cgroupFd = -1;
    int joins[3] = {-1, -1, -1};
    // The new process ends with the launcher: the launch registers it with the watchdog (unless its group is
    // registered already) and only then lets it exec.
    bool endWithLauncher = false;
    bool registeredByGroup = false;

    // Resolved by resolve_request.
    Arena arena;
    char** cmdLine = nullptr;    // from GenerateCmdLine, released by FreeCmdLine
    char** scriptArgv = nullptr; // /bin/sh, the program, its arguments: for a program without a format
    char** envp = nullptr;
    const char* searchPath = nullptr;
    PrivilegePlan privilege;
    StdPlan plans[3];
    UniqueFd hostPipeEnds[3];    // the launcher's end of each pipe
    UniqueFd childPipeEnds[3];
    ChildContext context;
    int openMax = 0;
    // Filled in by the launch.
    sigset_t signalMask;         // the launching thread's, for the new process to restore
    int writeEnd = -1;           // the exec-outcome channel's
    int gate = -1;               // endWithLauncher: the new process waits for a byte here before its exec
    UniqueFd ownJoin;            // the v2 group's cgroup.procs, for a process that can't be started inside it

    ~LaunchRequest();
};

// What a launch gives back. It touches no record: whoever follows the process makes one from this.
struct LaunchOutcome {
    ExecOutcome exec;
    // The new process (attached: a child; detached: the grandchild). 0 while none was made, -1 when
    // clone failed.
    pid_t pid = 0;
    UniqueFd pidfd;             // -1: the system offers none, follow it by its PID
    UniqueFd pipes[3];          // the launcher's end of each pipe asked for
    uint64_t watchdogToken = 0; // endWithLauncher without a group: the process's registration
    bool ok() const { return exec.result == PROC_SUCCESS; }
};

// The arguments of the exported launches, as a request.
void request_from_arguments(LaunchRequest* request, const char* executable, char** arguments,
                            char** environment, const char* workingDirectory, int64_t priority,
                            char** stdFiles, int64_t fileMask, const char* groupName, const char* userName,
                            int processGroup);

// Everything the new process will need, worked out here: command line, environment, identity, standard
// descriptors, trace switches. A result code; on failure sysErr says why.
int resolve_request(LaunchRequest* request, int* sysErr);

// The launch, attached or detached as the request says. When a launch that made a new process fails, the
// process is gone or killed when it returns (a detached one is init's to reap), and the failure is the new
// process's own where it reported one; a failed outcome holds no watchdog registration.
LaunchOutcome launch(LaunchRequest& request);
// Ends the process of a successful launch that can't be followed after all, reaps an attached one, and gives
// back its watchdog registration when it still holds one.
void abandon_launch(LaunchOutcome& outcome, bool detached);

// Makes a process that shares this one's memory (CLONE_VM, exit signal SIGCHLD) and runs main(argument) on
// the stack [stackLow, stackLow + stackSize) (a guard page at its low end may be part of it), created inside
// the cgroup v2 group whose directory descriptor (O_RDONLY or O_PATH) is `cgroupFd`: the process never runs
// outside the group. The PID, or -1 with errno: one that clone3_unusable accepts where the system can't start
// a process inside a group that way (the caller then falls back); EBADF for a descriptor that is no v2
// group's directory; ENOENT for a group removed since; EACCES when this process may not write the group's
// cgroup.procs; EBUSY for a group that has controllers enabled for its children; EAGAIN at a pids limit.
// main's result is the exit status.
// Called with every signal blocked, as the launch does. C linkage for the tests' link-time seam.
extern "C" pid_t clone_into_cgroup(int (*main)(void*), void* argument, void* stackLow, size_t stackSize,
                                   int cgroupFd);
// The same without the C library, for a new process to call: the PID or -errno, and nothing but the new stack
// is written.
extern "C" long clone_into_cgroup_raw(int (*main)(void*), void* argument, void* stackLow, size_t stackSize,
                                      int cgroupFd);
// clone(CLONE_VM, exit signal SIGCHLD) of main(argument) on the stack whose top is `stackTop`, without the C
// library: the PID or -errno.
extern "C" long clone_vm_raw(int (*main)(void*), void* argument, void* stackTop);
// Whether clone3 refused to start a process inside a group because this system can't do it that way, so that
// a plain clone and a join are the way: no clone3 (before 5.3) or a seccomp filter refusing it (ENOSYS, or
// EPERM in older filters); no CLONE_INTO_CGROUP (5.3 to 5.6: E2BIG for the larger argument, EINVAL for the
// flag).
NEW_PROCESS_CODE constexpr bool clone3_unusable(int err) {
    return err == ENOSYS || err == E2BIG || err == EINVAL || err == EPERM;
}

// ---- The exec-outcome channel, in the launching process ----
class ExecOutcomeChannel : NoCopy {
  public:
    // InitializePipe: both ends, close-on-exec and above 2. A result code; sysErr says why.
    int open(int* sysErr);
    int read_end() const { return read_.get(); }
    int write_end() const { return write_.get(); }
    // Closes the write end, waits up to `limitSeconds` for end of file (the exec happened) or a failure
    // record, and closes the read end.
    ExecOutcome await(int64_t limitSeconds);

  private:
    UniqueFd read_;
    UniqueFd write_;
};
// The wait of a launch, traced, with the limit of __JNI_PROCESS_CREATE_TIMEOUT.
ExecOutcome WaitForExecOutcome(ExecOutcomeChannel& channel);
int64_t unix_getStartProcessTimeout();
// Moves a descriptor the launch opened for itself above 2, so that it never stands in for a closed
// standard descriptor of the host. Returns the descriptor to use.
int keep_above_standard(int fd, bool closeOnExec);

// Reads one native int: the count read, or -1.
int read_int(int fd, int* out);

// ---- Command line ----
char** GenerateCmdLine(char** arguments, const char* executable);
void FreeCmdLine(char** cmdLine);

// ---- Environment ----
// The environment of the new process: the inherited one with the request's entries applied (path-like
// keys merged), or the request's entries alone. False when memory ran out.
bool build_environment(LaunchRequest* request);

// ---- Identity ----
// The registry's answers for the request's names. False when memory ran out.
bool resolve_privilege(PrivilegePlan* plan, const char* userName, const char* groupName, Arena& arena);
int set_privilege_ids(const ChildContext& context, const PrivilegePlan& plan, int* sysErr);

// ---- Standard descriptors ----
// Names and pipes for the three descriptors: a result code.
int plan_std_handles(LaunchRequest* request, int* sysErr);

// ---- The new process ----
// The system's text for an error, without the C library's locale machinery.
const char* error_text(int err, char (&buffer)[64]);
void child_log(const ChildContext& context, const char* format, ...) __attribute__((format(printf, 2, 3)));
void child_err(const ChildContext& context, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Entry and exit lines of a step of the new process.
class ChildTraceScope : NoCopy {
  public:
    ChildTraceScope(const ChildContext& context, const char* label);
    ~ChildTraceScope();
    void skip_exit() { label_ = nullptr; }

  private:
    const ChildContext& context_;
    const char* label_;
};

// The new process's context and its standard descriptors: a failure's result, sysErr and step.
ExecOutcome SetupChildStdHandles(const LaunchRequest& request, const ChildContext& context);
ExecOutcome SetupChildContext(const LaunchRequest& request, const ChildContext& context);
// What a new process is started with.
struct NewProcessStart {
    const LaunchRequest* request;
    bool attached;          // the launcher's child (else init's, or the nearest subreaper's)
    int ownGroupProcs = -1; // not started inside its v2 group: that group's cgroup.procs, to join first thing
};
// The new process's whole sequence: it execs the program, or reports over the channel and exits.
[[noreturn]] void run_new_process(const NewProcessStart& start);
