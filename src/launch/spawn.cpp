// The launches. The new process is made with clone(CLONE_VM): it shares the launcher's memory until its
// exec instead of copying the page tables of the whole JVM, so a launch costs the same from any heap.
// The launching thread keeps running and waits on the exec-outcome channel with its time limit.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
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
#include "containment/containment.h"
#include "runtime/pidfd.h"

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
// put its own dispositions in place; `saved` receives the launching thread's mask. With a cgroup v2 group,
// the process starts in it; where the system can't do that (no clone3 or CLONE_INTO_CGROUP), a plain clone,
// and the new process joins the group itself first thing (`ownJoin`).
pid_t clone_blocked(int (*main)(void*), void* stackTop, void* argument, LaunchRequest& request) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &request.signalMask);
    pid_t pid = -1;
    bool plain = request.cgroupFd < 0 || request.ownJoin.get() >= 0;
    if (!plain) {
        pid = clone_into_cgroup(main, argument, static_cast<char*>(stackTop) - kStackSize, kStackSize,
                                request.cgroupFd);
        if (pid == -1 && (errno == ENOSYS || errno == E2BIG)) {
            request.ownJoin.reset(openat(request.cgroupFd, "cgroup.procs", O_WRONLY | O_CLOEXEC));
            request.joins[2] = request.ownJoin.get();
            plain = request.ownJoin.get() >= 0;
        }
    }
    if (plain) pid = clone(main, stackTop, CLONE_VM | SIGCHLD, argument);
    int err = errno;
    pthread_sigmask(SIG_SETMASK, &request.signalMask, nullptr);
    errno = err;
    return pid;
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

// The pipe whose byte lets a new process that must end with the launcher exec.
struct Gate {
    UniqueFd readEnd;
    UniqueFd writeEnd;
    bool open(int* sysErr) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            *sysErr = errno;
            return false;
        }
        readEnd.reset(keep_above_standard(ends[0], true));
        writeEnd.reset(keep_above_standard(ends[1], true));
        return true;
    }
};

// A failure on the launcher's side.
void fail(LaunchOutcome& outcome, int result, int sysErr) {
    outcome.exec = {result, sysErr, kStepLauncher, 0};
}

// The request resolved, the channel open and, for a process that ends with the launcher, its gate: ready
// for clone. False with the outcome's failure.
bool prepare(LaunchRequest& request, ExecOutcomeChannel& channel, Gate& gate, LaunchOutcome& outcome) {
    int sysErr = 0;
    int result = resolve_request(&request, &sysErr);
    if (result == PROC_SUCCESS && channel.open(&sysErr) != PROC_SUCCESS) result = PROC_SYSTEM_ERR;
    if (result == PROC_SUCCESS && request.endWithLauncher && !gate.open(&sysErr))
        result = result_for_errno(sysErr, {}, PROC_SYSTEM_ERR);
    if (result != PROC_SUCCESS) {
        fail(outcome, result, sysErr);
        return false;
    }
    request.writeEnd = channel.write_end();
    request.gate = gate.readEnd.get();
    return true;
}

// Lets a new process that must end with the launcher exec, once the watchdog knows it (its group's
// registration, made before the launch, or its own, made here). False with the outcome's failure: the gate
// then closes without a byte, and the new process ends.
bool open_gate(LaunchRequest& request, Gate& gate, int pid, LaunchOutcome& outcome) {
    if (!request.endWithLauncher) return true;
    gate.readEnd.reset();
    if (!request.registeredByGroup) {
        outcome.pidfd.reset(pidfd_or_trace(pid));
        outcome.watchdogToken = outcome.pidfd.get() >= 0 ? watchdog_register_process(outcome.pidfd.get()) : 0;
        if (outcome.watchdogToken == 0) {
            int err = errno;
            gate.writeEnd.reset();
            fail(outcome, PROC_SYSTEM_ERR, err);
            outcome.exec.step = kStepWatchdog;
            return false;
        }
    }
    char byte = 1;
    ssize_t sent = retry_on_eintr([&] { return write(gate.writeEnd.get(), &byte, 1); });
    gate.writeEnd.reset();
    if (sent == 1) return true;
    fail(outcome, PROC_SYSTEM_ERR, errno);
    outcome.exec.step = kStepWatchdog;
    return false;
}

// The launcher's ends of the pipes go with a successful outcome.
void hand_over_pipes(LaunchRequest& request, LaunchOutcome& outcome) {
    for (int i = 0; i < 3; ++i)
        outcome.pipes[i] = std::move(request.hostPipeEnds[i]);
}

LaunchOutcome launch_attached(LaunchRequest& request) {
    TraceScope trace("unix_CreateProcess()");
    LaunchOutcome outcome;
    ExecOutcomeChannel channel;
    Gate gate;
    if (!prepare(request, channel, gate, outcome)) return outcome;

    ChildStacks stack(1);
    pid_t pid = stack.ok() ? clone_blocked(attached_main, stack.top(0), &request, request) : -1;
    outcome.pid = pid;
    if (pid == -1) {
        int err = stack.ok() ? errno : ENOMEM;
        process_err("FORK failed.  ERRNO: [%d]\n", err);
        fail(outcome, result_for_errno(err, {EAGAIN}, PROC_OUT_OF_MEMORY), err);
        return outcome;
    }
    if (!open_gate(request, gate, pid, outcome)) {
        kill_and_reap(pid);
        return outcome;
    }
    outcome.exec = WaitForExecOutcome(channel);
    process_log("WaitForExecOutcome completed.  Return value was: [%d] and sysErr was: [%d]\n",
                outcome.exec.result, outcome.exec.sysErr);
    if (!outcome.ok()) {
        kill_and_reap(pid);
        return outcome;
    }
    if (outcome.pidfd.get() < 0) outcome.pidfd.reset(pidfd_or_trace(pid));
    hand_over_pipes(request, outcome);
    return outcome;
}

LaunchOutcome launch_detached(LaunchRequest& request) {
    TraceScope trace("unix_CreateDetachedProcess()");
    LaunchOutcome outcome;
    ExecOutcomeChannel channel;
    Gate gate;
    if (!prepare(request, channel, gate, outcome)) return outcome;
    int ends[2]; // close-on-exec, as every descriptor of the launch; the new process's sweep closes its copies
    if (pipe2(ends, O_CLOEXEC) == -1) {
        int err = errno;
        if (err == ENFILE || err == EMFILE)
            process_err("Error creating pipe, out of file handles. errno=[%d]\n", err);
        else
            process_err("Error creating pipe. errno=[%d]\n", err);
        fail(outcome, err == ENFILE || err == EMFILE ? PROC_OUT_OF_FILE_HANDLES : PROC_SYSTEM_ERR, err);
        return outcome;
    }
    UniqueFd pidRead(keep_above_standard(ends[0], true));
    UniqueFd pidWrite(keep_above_standard(ends[1], true));

    ChildStacks stacks(2);
    DetachedStart start = {&request,
                           {channel.read_end(), channel.write_end()},
                           {pidRead.get(), pidWrite.get()},
                           stacks.top(1)};
    pid_t intermediate = stacks.ok() ? clone_blocked(intermediate_main, stacks.top(0), &start, request) : -1;
    if (intermediate == -1) {
        int err = stacks.ok() ? errno : ENOMEM;
        if (err == ENOMEM || err == EAGAIN) {
            process_err("Unable to fork a new process, out of memory or over limit. errno=[%d]", err);
            fail(outcome, PROC_OUT_OF_MEMORY, err);
        } else {
            process_err("Unable to fork a new process. errno=[%d]", err);
            fail(outcome, PROC_SYSTEM_ERR, err);
        }
        return outcome;
    }

    pidWrite.reset(); // so that the read sees end of file when the intermediate process ends silently
    int pid = 0;
    int got = read_int(pidRead.get(), &pid);
    pidRead.reset();
    reap(intermediate);
    if (got != static_cast<int>(sizeof pid)) { // the second clone failed: it said why
        fail(outcome, PROC_SYSTEM_ERR, 0);
        return outcome;
    }
    outcome.pid = pid;
    if (!open_gate(request, gate, pid, outcome)) {
        if (!gone_within(outcome.pidfd.get(), pid, kGoneMillis)) stacks.keep_forever();
        return outcome;
    }
    UniqueFd pidfd(outcome.pidfd.get() >= 0 ? outcome.pidfd.release() : pidfd_or_trace(pid));

    outcome.exec = WaitForExecOutcome(channel);
    if (outcome.exec.result == PROC_CREATE_TIMEOUT)
        retry_on_eintr([&] { return pidfd.get() >= 0 ? pidfd_signal(pidfd.get(), SIGKILL) : kill(pid, SIGKILL); });
    // After a failure the new process ends by itself or was killed; its stack goes once it has. (After a
    // failed wait it may run on unsupervised.)
    if (!outcome.ok()) {
        if (!gone_within(pidfd.get(), pid, kGoneMillis)) stacks.keep_forever();
        return outcome;
    }
    outcome.pidfd = std::move(pidfd);
    hand_over_pipes(request, outcome);
    return outcome;
}
} // namespace

LaunchOutcome launch(LaunchRequest& request) {
    return request.detached ? launch_detached(request) : launch_attached(request);
}

void abandon_launch(LaunchOutcome& outcome, bool detached) {
    retry_on_eintr([&] {
        return outcome.pidfd.get() >= 0 ? pidfd_signal(outcome.pidfd.get(), SIGKILL) : kill(outcome.pid, SIGKILL);
    });
    if (!detached) reap(outcome.pid);
}
