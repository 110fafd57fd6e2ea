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
#include <sys/socket.h>
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

NEW_PROCESS_CODE int new_process_main(void* start) {
    run_new_process(*static_cast<const NewProcessStart*>(start));
}

// What the intermediate process of a detached launch needs: the new process's start, inside its v2 group or
// (where the system can't start it there) joining it itself, its stack and the pid channel.
struct DetachedStart {
    NewProcessStart inGroup;
    NewProcessStart joining;
    int ownJoinErr; // why the group's cgroup.procs could not be opened, when it could not
    void* stackTop;
    int pidWriteEnd;
};

// Makes the new process of a detached launch: the PID or -errno.
NEW_PROCESS_CODE long clone_detached(const DetachedStart& start) {
    void* inGroup = const_cast<NewProcessStart*>(&start.inGroup);
    int group = start.inGroup.request->cgroupFd;
    if (group < 0) return clone_vm_raw(new_process_main, inGroup, start.stackTop);
    long pid = clone_into_cgroup_raw(new_process_main, inGroup,
                                     static_cast<char*>(start.stackTop) - kStackSize, kStackSize, group);
    if (pid >= 0 || !clone3_unusable(static_cast<int>(-pid))) return pid;
    if (start.joining.ownGroupProcs < 0) return -start.ownJoinErr;
    return clone_vm_raw(new_process_main, const_cast<NewProcessStart*>(&start.joining), start.stackTop);
}

// The intermediate process of a detached launch: it makes the new process, sends its PID (or -errno) over the
// pid channel and ends, so that the new process passes to init. It is made outside the tree's v2 group, so
// that only the new process ever counts there (against a process limit of 1, say). It shares the launching
// thread's errno too, so it makes the new process without the C library. All signals stay blocked in it.
NEW_PROCESS_CODE int intermediate_main(void* argument) {
    const DetachedStart& start = *static_cast<const DetachedStart*>(argument);
    long pid = clone_detached(start);
    if (pid < 0) {
        const ChildContext& context = start.inGroup.request->context;
        int err = static_cast<int>(-pid);
        if (err == ENOMEM || err == EAGAIN)
            child_err(context, "Unable to fork second process, out of memory or over limit. errno=[%d]", err);
        else
            child_err(context, "Unable to fork second process. errno=[%d]", err);
    }
    const int word = static_cast<int>(pid);
    sys_write(start.pidWriteEnd, &word, sizeof word);
    return 0;
}

// Runs `make` with every signal blocked, so that no handler of the JVM runs in the new process before it has
// put its own dispositions in place; request.signalMask receives the launching thread's mask. make's errno
// is kept.
template <typename Make> pid_t with_signals_blocked(LaunchRequest& request, Make make) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &request.signalMask);
    pid_t pid = make();
    int err = errno;
    pthread_sigmask(SIG_SETMASK, &request.signalMask, nullptr);
    errno = err;
    return pid;
}

// The new process of an attached launch, inside its v2 group when it has one. Where the system can't start
// it there (clone3_unusable), a plain clone, and the new process joins the group itself first thing.
pid_t clone_attached(NewProcessStart& start, void* stackTop, LaunchRequest& request) {
    if (request.cgroupFd >= 0) {
        pid_t pid = clone_into_cgroup(new_process_main, &start, static_cast<char*>(stackTop) - kStackSize,
                                      kStackSize, request.cgroupFd);
        if (pid != -1 || !clone3_unusable(errno)) return pid;
        request.ownJoin.reset(openat(request.cgroupFd, "cgroup.procs", O_WRONLY | O_CLOEXEC));
        if (request.ownJoin.get() < 0) return -1;
        start.ownGroupProcs = request.ownJoin.get();
    }
    return clone(new_process_main, stackTop, CLONE_VM | SIGCHLD, &start);
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

// Where a new process that must end with the launcher waits for the byte that lets it exec.
// A connected socket pair rather than a pipe, so that the byte sent to a process that was killed meanwhile
// fails with EPIPE and raises no SIGPIPE in the launcher (MSG_NOSIGNAL).
struct Gate {
    UniqueFd readEnd;
    UniqueFd writeEnd;
    bool open(int* sysErr) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            *sysErr = errno;
            return false;
        }
        readEnd.reset(keep_above_standard(ends[0], true));
        writeEnd.reset(keep_above_standard(ends[1], true));
        return true;
    }
    // 1 when the byte went, else -1 with errno.
    ssize_t let_through() {
        char byte = 1;
        return retry_on_eintr([&] { return send(writeEnd.get(), &byte, 1, MSG_NOSIGNAL); });
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

// The outcome's pidfd for the new process: 0, or why there is none (ESRCH: the process is gone already).
int open_pidfd(LaunchOutcome& outcome) {
    outcome.pidfd.reset(pidfd_or_trace(outcome.pid));
    return outcome.pidfd.get() >= 0 ? 0 : errno;
}

// Lets a new process that must end with the launcher exec, once the watchdog knows it (its group's
// registration, made before the launch, or its own, made here through the outcome's pidfd; `pidfdErr` says
// why there is none). False with the outcome's failure: the caller kills the new process, and the gate closes
// without a byte.
bool open_gate(LaunchRequest& request, Gate& gate, LaunchOutcome& outcome, int pidfdErr) {
    if (!request.endWithLauncher) return true;
    gate.readEnd.reset();
    if (!request.registeredByGroup) {
        outcome.watchdogToken = pidfdErr == 0 ? watchdog_register_process(outcome.pidfd.get()) : 0;
        if (outcome.watchdogToken == 0) {
            outcome.exec = {PROC_SYSTEM_ERR, pidfdErr != 0 ? pidfdErr : errno, kStepWatchdog, 0};
            return false;
        }
    }
    if (gate.let_through() == 1) {
        gate.writeEnd.reset();
        return true;
    }
    outcome.exec = {PROC_SYSTEM_ERR, errno, kStepWatchdog, 0};
    return false;
}

// Whether a failure is the new process's own record, rather than the launcher's, its wait's or the gate's.
bool told_by_new_process(const ExecOutcome& exec) {
    return exec.result != PROC_SUCCESS && exec.step != kStepLauncher && exec.step != kStepWaitBuffer &&
           exec.step != kStepWatchdog;
}

// After the launcher's own failure at the gate, with the new process killed: a failure the new process had
// reported before (its directory, a standard file, a limit, its user) is the launch's real one and wins.
void prefer_reported_failure(ExecOutcomeChannel& channel, LaunchOutcome& outcome) {
    ExecOutcome told = WaitForExecOutcome(channel);
    if (told_by_new_process(told)) outcome.exec = told;
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
    NewProcessStart start = {&request, true};
    auto make = [&] { return clone_attached(start, stack.top(0), request); };
    pid_t pid = stack.ok() ? with_signals_blocked(request, make) : -1;
    outcome.pid = pid;
    if (pid == -1) {
        int err = stack.ok() ? errno : ENOMEM;
        process_err("FORK failed.  ERRNO: [%d]\n", err);
        fail(outcome, result_for_errno(err, {EAGAIN}, PROC_OUT_OF_MEMORY), err);
        return outcome;
    }
    int pidfdErr = request.endWithLauncher && !request.registeredByGroup ? open_pidfd(outcome) : 0;
    bool gateOpened = open_gate(request, gate, outcome, pidfdErr);
    if (gateOpened) {
        outcome.exec = WaitForExecOutcome(channel);
        process_log("WaitForExecOutcome completed.  Return value was: [%d] and sysErr was: [%d]\n",
                    outcome.exec.result, outcome.exec.sysErr);
    }
    if (!outcome.ok()) {
        kill_and_reap(pid);
        if (!gateOpened) prefer_reported_failure(channel, outcome);
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
    // The pid channel: close-on-exec, as every descriptor of the launch; the new process's sweep closes it.
    int ends[2];
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

    // The intermediate process can't open files for the new process: the group's cgroup.procs is opened now,
    // in case the new process can't be started inside the group.
    int ownJoinErr = 0;
    if (request.cgroupFd >= 0) {
        request.ownJoin.reset(openat(request.cgroupFd, "cgroup.procs", O_WRONLY | O_CLOEXEC));
        ownJoinErr = request.ownJoin.get() < 0 ? errno : 0;
    }
    ChildStacks stacks(2);
    DetachedStart start = {{&request, false},
                           {&request, false, request.ownJoin.get()},
                           ownJoinErr,
                           stacks.top(1),
                           pidWrite.get()};
    auto make = [&] { return clone(intermediate_main, stacks.top(0), CLONE_VM | SIGCHLD, &start); };
    pid_t intermediate = stacks.ok() ? with_signals_blocked(request, make) : -1;
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
    int readErr = errno;
    pidRead.reset();
    reap(intermediate);
    if (got != static_cast<int>(sizeof pid) || pid <= 0) { // the intermediate process could not make it
        int err = got == static_cast<int>(sizeof pid) ? -pid : got < 0 ? readErr : 0;
        fail(outcome, result_for_errno(err, {EAGAIN}, PROC_OUT_OF_MEMORY), err);
        return outcome;
    }
    outcome.pid = pid;
    int pidfdErr = open_pidfd(outcome);
    bool followedByPid = pidfdErr != 0 && pidfdErr != ESRCH; // no pidfd on this system
    bool gateOpened = open_gate(request, gate, outcome, pidfdErr);
    if (gateOpened) outcome.exec = WaitForExecOutcome(channel);
    if (outcome.ok()) {
        hand_over_pipes(request, outcome);
        return outcome;
    }
    // The caller frees the request once the launch returns: a new process that may still run on it (hung
    // before its exec, held at its gate) is killed first. One that told its failure ends by itself; by its
    // PID alone it is not signalled then, as init may have reaped it and given the PID away.
    if (outcome.pidfd.get() >= 0)
        retry_on_eintr([&] { return pidfd_signal(outcome.pidfd.get(), SIGKILL); });
    else if (followedByPid && !told_by_new_process(outcome.exec))
        retry_on_eintr([&] { return kill(pid, SIGKILL); });
    gate.writeEnd.reset();
    if (!gateOpened) prefer_reported_failure(channel, outcome);
    if (!gone_within(outcome.pidfd.get(), pid, kGoneMillis)) stacks.keep_forever();
    return outcome;
}
} // namespace

LaunchOutcome launch(LaunchRequest& request) {
    LaunchOutcome outcome = request.detached ? launch_detached(request) : launch_attached(request);
    // Its process is gone or killed by now: a failed launch holds no registration, or launches retried after
    // a failure would fill the watchdog until every launch that ends with the launcher is refused.
    if (!outcome.ok() && outcome.watchdogToken != 0) {
        watchdog_forget(outcome.watchdogToken);
        outcome.watchdogToken = 0;
    }
    return outcome;
}

void abandon_launch(LaunchOutcome& outcome, bool detached) {
    retry_on_eintr([&] {
        return outcome.pidfd.get() >= 0 ? pidfd_signal(outcome.pidfd.get(), SIGKILL)
                                        : kill(outcome.pid, SIGKILL);
    });
    if (!detached) reap(outcome.pid);
    if (outcome.watchdogToken != 0)
        watchdog_forget(outcome.watchdogToken); // nothing is left to kill at the end
    outcome.watchdogToken = 0;
}
