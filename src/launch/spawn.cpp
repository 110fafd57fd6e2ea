// The launches. The new process is made with clone(CLONE_VM): it shares the launcher's memory until its
// exec instead of copying the page tables of the whole JVM, so a launch costs the same from any heap.
// The launching thread keeps running and waits on the exec-outcome channel with its time limit.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

#include "launch/launch_internal.h"
#include "launch/raw_syscall.h"
#include "quillon/launch.h"
#include "supervision/pidfd.h"
#include "supervision/supervision_internal.h"

namespace {
constexpr size_t kStackSize = 256 * 1024;
constexpr int kGoneMillis = 5000;

// Stacks for new processes. A stack is unmapped only when its process no longer uses the launcher's
// memory (it has exec'd or ended); when that can't be known, it stays mapped for good.
class ChildStacks : NoCopy {
  public:
    explicit ChildStacks(int count) : size_(static_cast<size_t>(count) * kStackSize) {
        void* base = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE,
                          -1, 0);
        if (base == MAP_FAILED) return;
        base_ = static_cast<char*>(base);
#if defined(__SANITIZE_ADDRESS__)
        __asan_unpoison_memory_region(base_, size_); // the address may have been a stack before, poisoned
#endif
        for (int i = 0; i < count; ++i) // a guard page below each stack
            mprotect(base_ + static_cast<size_t>(i) * kStackSize, static_cast<size_t>(getpagesize()), PROT_NONE);
    }
    ~ChildStacks() {
        if (base_ != nullptr) munmap(base_, size_);
    }
    bool ok() const { return base_ != nullptr; }
    // Null when there are no stacks.
    void* top(int i) const { return base_ == nullptr ? nullptr : base_ + static_cast<size_t>(i + 1) * kStackSize; }
    void keep_forever() {
        process_log("A new process may still use its stack: it stays mapped\n");
        base_ = nullptr;
    }

  private:
    size_t size_;
    char* base_ = nullptr;
};

struct DetachedStart {
    LaunchRequest* request;
    int channel[2];
    int pidChannel[2];
    void* grandchildStack;
};

NEW_PROCESS_CODE int attached_main(void* request) {
    run_new_process(*static_cast<LaunchRequest*>(request), true);
}

NEW_PROCESS_CODE int detached_main(void* request) {
    run_new_process(*static_cast<LaunchRequest*>(request), false);
}

// The intermediate process of a detached launch: it makes the new process, reports its PID and ends,
// so that the new process passes to init. All signals stay blocked in it.
NEW_PROCESS_CODE int intermediate_main(void* argument) {
    const DetachedStart& start = *static_cast<DetachedStart*>(argument);
    const ChildContext& context = start.request->context;
    pid_t pid = clone(detached_main, start.grandchildStack, CLONE_VM | SIGCHLD, start.request);
    int status = 0;
    if (pid == -1) {
        // errno is the launching thread's too; it is blocked in read and doesn't look at it.
        int err = errno;
        if (err == ENOMEM || err == EAGAIN)
            child_err(context, "Unable to fork second process, out of memory or over limit. errno=[%d]", err);
        else
            child_err(context, "Unable to fork second process. errno=[%d]", err);
        status = 255;
    } else {
        sys_write(start.pidChannel[1], &pid, sizeof pid);
    }
    sys_close(start.pidChannel[0]);
    sys_close(start.pidChannel[1]);
    sys_close(start.channel[0]);
    sys_close(start.channel[1]);
    sys_exit(status);
}

// clone with every signal blocked, so that no handler of the JVM runs in the new process before it has
// put its own dispositions in place; `saved` receives the launching thread's mask.
pid_t clone_blocked(int (*main)(void*), void* stackTop, void* argument, sigset_t* saved) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, saved);
    pid_t pid = clone(main, stackTop, CLONE_VM | SIGCHLD, argument);
    int err = errno;
    pthread_sigmask(SIG_SETMASK, saved, nullptr);
    errno = err;
    return pid;
}

// A pipe whose two ends are closed by their owners unless given away.
struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

bool open_channel(Pipe* channel, int* sysErr) {
    int ends[2];
    if (InitializePipe(ends, sysErr) != PROC_SUCCESS) return false;
    channel->read.reset(ends[0]);
    channel->write.reset(ends[1]);
    return true;
}

// WaitForExecOutcome, which closes both ends itself.
int wait_for_outcome(Pipe* channel, int* sysErr) {
    int ends[2] = {channel->read.release(), channel->write.release()};
    return WaitForExecOutcome(ends, sysErr);
}

void kill_and_reap(int pid) {
    retry_on_eintr([&] { return kill(pid, SIGKILL); });
    retry_on_eintr([&] { return waitpid(pid, nullptr, 0); });
}

void reap(pid_t pid) {
    int status;
    retry_on_eintr([&] { return waitpid(pid, &status, 0); });
}

// Whether a process that is no child of ours has ended within `millis`.
bool gone_within(int pidfd, int pid, int millis) {
    if (pidfd >= 0) {
        pollfd ready = {pidfd, POLLIN, 0};
        return poll(&ready, 1, millis) == 1;
    }
    for (int waited = 0; kill(pid, 0) == 0; waited += 10) {
        if (waited >= millis) return false;
        usleep(10000);
    }
    return true;
}
} // namespace

int launch_attached(LaunchRequest* request, UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_CreateProcess()");
    int result = resolve_request(request, sysErr);
    if (result != PROC_SUCCESS) return result;
    *sysErr = 0;
    Pipe outcome;
    if (!open_channel(&outcome, sysErr)) return PROC_SYSTEM_ERR;
    request->writeEnd = outcome.write.get();

    ChildStacks stack(1);
    pid_t pid = stack.ok() ? clone_blocked(attached_main, stack.top(0), request, &request->signalMask) : -1;
    snprintf(data->pid, kPidTextSize, "%d", pid);
    if (pid == -1) {
        *sysErr = stack.ok() ? errno : ENOMEM;
        process_err("FORK failed.  ERRNO: [%d]\n", *sysErr);
        return result_for_errno(*sysErr, {EAGAIN}, PROC_OUT_OF_MEMORY);
    }
    *sysErr = 0;
    result = wait_for_outcome(&outcome, sysErr);
    process_log("WaitForExecOutcome completed.  Return value was: [%d] and sysErr was: [%d]\n", result,
                *sysErr);
    if (result == PROC_SUCCESS && !attach_launched_entry(data, pid, -1)) {
        *sysErr = ENOMEM;
        result = PROC_OUT_OF_MEMORY;
    }
    if (result != PROC_SUCCESS) kill_and_reap(record_pid(data));
    data->isAlive = result == PROC_SUCCESS ? 1 : 0;
    return result;
}

int launch_detached(LaunchRequest* request, UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_CreateDetachedProcess()");
    int result = resolve_request(request, sysErr);
    if (result != PROC_SUCCESS) return result;
    *sysErr = 0;
    Pipe outcome;
    Pipe pids; // not close-on-exec: the new process's sweep closes it
    if (!open_channel(&outcome, sysErr)) return PROC_SYSTEM_ERR;
    int ends[2];
    if (pipe(ends) == -1) {
        int err = errno;
        if (err == ENFILE || err == EMFILE)
            process_err("Error creating pipe, out of file handles. errno=[%d]\n", err);
        else
            process_err("Error creating pipe. errno=[%d]\n", err);
        return err == ENFILE || err == EMFILE ? PROC_OUT_OF_FILE_HANDLES : PROC_SYSTEM_ERR;
    }
    pids.read.reset(keep_above_standard(ends[0], false));
    pids.write.reset(keep_above_standard(ends[1], false));
    request->writeEnd = outcome.write.get();

    ChildStacks stacks(2);
    DetachedStart start = {request,
                           {outcome.read.get(), outcome.write.get()},
                           {pids.read.get(), pids.write.get()},
                           stacks.top(1)};
    pid_t intermediate =
        stacks.ok() ? clone_blocked(intermediate_main, stacks.top(0), &start, &request->signalMask) : -1;
    if (intermediate == -1) {
        *sysErr = stacks.ok() ? errno : ENOMEM;
        if (*sysErr == ENOMEM || *sysErr == EAGAIN) {
            process_err("Unable to fork a new process, out of memory or over limit. errno=[%d]", *sysErr);
            return PROC_OUT_OF_MEMORY;
        }
        process_err("Unable to fork a new process. errno=[%d]", *sysErr);
        return PROC_SYSTEM_ERR;
    }

    pids.write.reset(); // so that the read sees end of file when the intermediate process ends silently
    int pid = 0;
    int got = read_int(pids.read.get(), &pid);
    pids.read.reset();
    reap(intermediate);
    if (got != static_cast<int>(sizeof pid)) return PROC_SYSTEM_ERR; // the second clone failed: it said why
    snprintf(data->pid, kPidTextSize, "%d", pid);
    UniqueFd pidfd(quillon_pidfd_open(pid));

    *sysErr = 0;
    result = wait_for_outcome(&outcome, sysErr);
    if (result == PROC_CREATE_TIMEOUT)
        retry_on_eintr([&] { return pidfd.get() >= 0 ? pidfd_signal(pidfd.get(), SIGKILL) : kill(pid, SIGKILL); });
    // After a failure the new process ends by itself or was killed; its stack goes once it has. (After a
    // failed wait it may run on unsupervised.)
    if (result != PROC_SUCCESS && !gone_within(pidfd.get(), pid, kGoneMillis)) stacks.keep_forever();
    if (result == PROC_SUCCESS && !attach_launched_entry(data, pid, pidfd.release())) {
        retry_on_eintr([&] { return kill(pid, SIGKILL); });
        *sysErr = ENOMEM;
        result = PROC_OUT_OF_MEMORY;
    }
    data->isAlive = result == PROC_SUCCESS ? 1 : 0;
    return result;
}

int spawn_request(LaunchRequest* request, UnixProcessData* data, int* sysErr) {
    TraceScope trace("unix_spawnProcess()");
    if (record_pid(data) != 0) return PROC_SUCCESS;
    process_log(request->detached ? "Calling unix_CreateDetachedProcess.\n" : "Calling unix_CreateProcess.\n");
    int result = request->detached ? launch_detached(request, data, sysErr) : launch_attached(request, data, sysErr);
    process_log("Result from spawn was: [%d].\n", result);
    return result;
}

QUILLON_API int unix_CreateProcess(const char* executable, char** arguments, char** environment,
                                   const char* workingDirectory, int64_t priority, char** stdFiles,
                                   int64_t fileMask, const char* groupName, const char* userName,
                                   int processGroup, UnixProcessData* data, int* sysErr) {
    LaunchRequest request;
    request_from_arguments(&request, executable, arguments, environment, workingDirectory, priority, stdFiles,
                           fileMask, groupName, userName, processGroup);
    return launch_attached(&request, data, sysErr);
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
    return launch_detached(&request, data, sysErr);
}

QUILLON_API int unix_spawnProcess(UnixProcessData* data, int detached, int* sysErr) {
    LaunchRequest request;
    request_from_arguments(&request, data->executable, data->arguments, data->environment,
                           data->workingDirectory, data->priority, data->stdFiles, data->fileMask,
                           data->groupName, data->userName, data->processGroup);
    request.detached = detached != 0;
    return spawn_request(&request, data, sysErr);
}
