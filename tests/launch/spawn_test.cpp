// The launcher's side of a launch, driven through `launch` as the public API drives it: the descriptors it
// makes, what becomes of a new process whose launch fails, and the failure a caller is told. Each case runs
// in a child of the test, so that children, descriptors and the watchdog stay out of the test runner.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "launch/launch_internal.h"
#include "launch/launch_support.h"
#include "launch/raw_syscall.h"
#include "containment/containment.h"
#include "runtime/pidfd.h"
#include "support/child.h"
#include "support/named_case.h"
#include "support/seams.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

// The descriptors of this process that a program started now would inherit.
std::set<int> inheritable_descriptors() {
    std::set<int> found;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return found;
    for (dirent* entry; (entry = readdir(dir)) != nullptr;) {
        int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(dir) && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0)
            found.insert(fd);
    }
    closedir(dir);
    return found;
}

std::set<int> inheritableBefore;
std::atomic<int> inheritableAtClone = -1;

// Runs in the launching thread right before the clone: everything the launch made is open by then.
void count_inheritable_at_clone() {
    int count = 0;
    for (int fd : inheritable_descriptors())
        count += inheritableBefore.count(fd) == 0 ? 1 : 0;
    inheritableAtClone = count;
}

struct DescriptorCase {
    const char* name;
    bool detached;
    bool endWithLauncher;
    bool pipes;
};

class LaunchDescriptors : public testing::TestWithParam<DescriptorCase> {};

// A program another thread starts at any moment of a launch inherits nothing of it: a write end of the
// exec-outcome channel held by that program would make the launch wait its whole limit.
TEST_P(LaunchDescriptors, AreCloseOnExecFromTheirCreation) {
    const DescriptorCase& c = GetParam();
    ChildOutcome outcome = RunInChild([&] {
        LaunchRequest request;
        request.executable = "/bin/true";
        request.detached = c.detached;
        request.endWithLauncher = c.endWithLauncher;
        for (StdRequest& std : request.std)
            std.mode = c.pipes ? kStdPipe : kStdNull;
        inheritableBefore = inheritable_descriptors();
        int madeBefore = seams::inheritablePipes;
        seams::beforeClone = count_inheritable_at_clone;
        LaunchOutcome launched = launch(request);
        if (!c.detached && launched.pid > 0) waitpid(launched.pid, nullptr, 0);
        return "result " + std::to_string(launched.exec.result) + " inheritableAtClone " +
               std::to_string(inheritableAtClone) + " madeInheritable " +
               std::to_string(seams::inheritablePipes - madeBefore);
    });
    EXPECT_EQ(outcome.report, "result 0 inheritableAtClone 0 madeInheritable 0") << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(Launches, LaunchDescriptors,
                         testing::Values(DescriptorCase{"attached", false, false, false},
                                         DescriptorCase{"detached", true, false, false},
                                         DescriptorCase{"attachedEndingWithLauncher", false, true, true},
                                         DescriptorCase{"detachedEndingWithLauncher", true, true, true},
                                         DescriptorCase{"detachedWithPipes", true, false, true}),
                         CaseName());

// Waits until the process of a launch has ended: an attached one is reaped, a detached one is seen through
// its pidfd.
void await_end(LaunchOutcome& launched, bool detached) {
    if (!detached) waitpid(launched.pid, nullptr, 0);
    pollfd ended = {launched.pidfd.get(), POLLIN, 0};
    if (detached) poll(&ended, 1, 10000);
}

// /proc/self/cgroup as the intermediate process of a detached launch reads it before its clone.
char intermediateCgroup[4096];

NEW_PROCESS_CODE void record_intermediate_cgroup() {
    long fd = sys_open("/proc/self/cgroup", O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return;
    size_t length = 0;
    for (long got; (got = sys_read(static_cast<int>(fd), intermediateCgroup + length,
                                   sizeof intermediateCgroup - 1 - length)) > 0;)
        length += static_cast<size_t>(got);
    sys_close(static_cast<int>(fd));
}

struct GroupCase {
    const char* name;
    bool detached;
    int clone3Refusal; // 0: clone3 works; else the errno a system that can't use it answers
};

class LaunchIntoGroup : public testing::TestWithParam<GroupCase> {};

// The program runs inside its tree's group whether clone3 can start it there or it has to join itself; and
// the intermediate process of a detached launch never counts in the group, where it would take the place of
// the program under a process limit of 1.
TEST_P(LaunchIntoGroup, PutsTheProgramAndNothingElseInTheGroup) {
    const GroupCase& c = GetParam();
    TestGroup group;
    std::string why = group.create();
    if (!why.empty()) GTEST_SKIP() << why;
    std::string listing = "/tmp/quillon-group-" + std::to_string(getpid());
    ChildOutcome outcome = RunInChild([&] {
        LaunchRequest request;
        request.executable = "/bin/cat";
        char* arguments[] = {const_cast<char*>("/proc/self/cgroup"), nullptr};
        request.arguments = arguments;
        request.std[1] = {kStdWrite, listing.c_str()};
        request.detached = c.detached;
        request.cgroupFd = group.fd();
        if (c.clone3Refusal != 0)
            (c.detached ? seams::secondCloneIntoCgroup : seams::cloneIntoCgroup) = {1, c.clone3Refusal};
        seams::inIntermediate = record_intermediate_cgroup;
        LaunchOutcome launched = launch(request);
        if (launched.ok()) await_end(launched, c.detached);
        std::string said = "result " + std::to_string(launched.exec.result) + "/" +
                           std::to_string(launched.exec.sysErr) + " program " + V2Line(ReadFile(listing));
        if (c.detached) said += " intermediate " + V2Line(intermediateCgroup);
        return said;
    });
    unlink(listing.c_str());
    std::string expected = "result 0/0 program 0::" + group.path();
    if (c.detached) expected += " intermediate 0::" + own_v2_path();
    EXPECT_EQ(outcome.report, expected) << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(Clone3, LaunchIntoGroup,
                         testing::Values(GroupCase{"attached", false, 0},
                                         GroupCase{"attachedWithoutClone3", false, ENOSYS},
                                         GroupCase{"attachedClone3Filtered", false, EPERM},
                                         GroupCase{"attachedWithoutTheFlag", false, EINVAL},
                                         GroupCase{"attachedWithoutTheField", false, E2BIG},
                                         GroupCase{"detached", true, 0},
                                         GroupCase{"detachedWithoutClone3", true, ENOSYS},
                                         GroupCase{"detachedClone3Filtered", true, EPERM},
                                         GroupCase{"detachedWithoutTheFlag", true, EINVAL},
                                         GroupCase{"detachedWithoutTheField", true, E2BIG}),
                         CaseName());

std::string outcome_text(const ExecOutcome& exec) {
    return std::to_string(exec.result) + "/" + std::to_string(exec.sysErr) + " step " +
           std::to_string(exec.step);
}

// Makes this process the reaper of the orphans below it and reaps every child the moment it ends, as a busy
// init does: a new process the launch has no pidfd for yet is gone, and its PID free, at once.
class EagerReaper {
  public:
    EagerReaper() {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        thread_ = std::thread([this] {
            while (!stop_)
                if (waitpid(-1, nullptr, __WALL | WNOHANG) <= 0) usleep(100);
        });
    }
    ~EagerReaper() {
        stop_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

// Holds the launcher until the new process has failed: asleep at its gate with its record written, or ended.
void await_new_process_failed(int pid) {
    for (int i = 0; i < 5000; ++i) {
        char state = ProcessState(pid);
        if (state == 'S' || state == 'Z' || state == 0) return;
        usleep(1000);
    }
}

// Fills the watchdog of this process (made here, after a low hard limit of descriptors) until it refuses.
bool fill_watchdog() {
    rlimit limit = {48, 48};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    UniqueFd self(quillon_pidfd_open(getpid()));
    if (self.get() < 0) return false;
    for (int i = 0; i < 100; ++i)
        if (watchdog_register_process(self.get()) == 0) return errno == ENOSPC;
    return false;
}

struct OwnFailureCase {
    const char* name;
    bool detached;
    bool watchdogFull;
    int rounds;
};

class EndingWithLauncher : public testing::TestWithParam<OwnFailureCase> {};

// A program that must end with the launcher and fails before its exec (here at its directory) is reported by
// that failure every time: not by the registration with the watchdog, which finds it reaped already, nor by a
// registration that failed meanwhile.
TEST_P(EndingWithLauncher, IsReportedByItsOwnFailure) {
    const OwnFailureCase& c = GetParam();
    ChildOutcome outcome = RunInChild(
        [&] {
            if (c.watchdogFull && !fill_watchdog()) return std::string("watchdog not filled");
            EagerReaper reaper;
            std::string others;
            int wrong = 0;
            for (int round = 0; round < c.rounds; ++round) {
                LaunchRequest request;
                request.executable = "/bin/true";
                request.workingDirectory = "/no/such/directory";
                request.detached = c.detached;
                request.endWithLauncher = true;
                if (c.watchdogFull) seams::beforePidfd = await_new_process_failed;
                LaunchOutcome launched = launch(request);
                std::string text = outcome_text(launched.exec);
                if (text != outcome_text({PROC_INVALID_DIRECTORY, ENOENT, kStepDirectory, 0}) && wrong++ == 0)
                    others = ", first other: " + text;
            }
            return std::to_string(wrong) + " of " + std::to_string(c.rounds) + " told otherwise" + others;
        },
        120);
    EXPECT_EQ(outcome.report, "0 of " + std::to_string(c.rounds) + " told otherwise")
        << "status " << outcome.status << " " << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(MissingDirectory, EndingWithLauncher,
                         testing::Values(OwnFailureCase{"detached", true, false, 200},
                                         OwnFailureCase{"attached", false, false, 50},
                                         OwnFailureCase{"detachedWatchdogFull", true, true, 20},
                                         OwnFailureCase{"attachedWatchdogFull", false, true, 20}),
                         CaseName());

// Kills the new process before the launcher asks for its pidfd, and waits until it is a zombie.
void kill_new_process(int pid) {
    kill(pid, SIGKILL);
    for (int i = 0; i < 5000 && ProcessState(pid) != 'Z' && ProcessState(pid) != 0; ++i)
        usleep(1000);
}

// The byte sent to a process that was killed meanwhile fails the launch; it raises no SIGPIPE, which a host
// that keeps its default would die of.
TEST(KilledAtTheGate, FailsTheLaunchAndSparesTheLauncher) {
    ChildOutcome outcome = RunInChild([] {
        signal(SIGPIPE, SIG_DFL);
        LaunchRequest request;
        request.executable = "/bin/true";
        request.endWithLauncher = true;
        seams::beforePidfd = kill_new_process;
        LaunchOutcome launched = launch(request);
        return outcome_text(launched.exec);
    });
    EXPECT_EQ(outcome.report, outcome_text({PROC_SYSTEM_ERR, EPIPE, kStepWatchdog, 0}))
        << "status " << outcome.status << ": " << outcome.err;
}

// Launches that fail after their registration give it back: retried without end, they would fill the watchdog
// (here 47 places) until every launch that ends with the launcher is refused with ENOSPC.
TEST(FailedLaunches, GiveTheirWatchdogRegistrationBack) {
    ChildOutcome outcome = RunInChild(
        [] {
            rlimit limit = {48, 48};
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("setrlimit failed");
            int before = OpenDescriptorCount();
            std::string failures;
            for (int round = 0; round < 150; ++round) {
                LaunchRequest request;
                request.executable = "/no/such/program";
                request.detached = round % 2 == 1;
                request.endWithLauncher = true;
                LaunchOutcome launched = launch(request);
                if (outcome_text(launched.exec) !=
                        outcome_text({PROC_INVALID_EXECUTABLE, ENOENT, kStepExec, 0}) ||
                    launched.watchdogToken != 0)
                    failures += " round " + std::to_string(round) + ": " + outcome_text(launched.exec);
            }
            LaunchRequest valid;
            valid.executable = "/bin/true";
            valid.endWithLauncher = true;
            LaunchOutcome launched = launch(valid);
            waitpid(launched.pid, nullptr, 0);
            watchdog_forget(launched.watchdogToken);
            launched.pidfd.reset();
            return "failures:" + failures + " then " + outcome_text(launched.exec) + " descriptors " +
                   std::to_string(OpenDescriptorCount() - before);
        },
        120);
    // The one descriptor left is the launcher's end of the watchdog's socket.
    EXPECT_EQ(outcome.report, "failures: then " + outcome_text({}) + " descriptors 1") << outcome.err;
}

enum class LaunchFault { WatchdogFull, NoPidfd, WaitFails };

struct LeftoverCase {
    const char* name;
    bool detached;
    LaunchFault fault;
    ExecOutcome expected;
};

class FailedLaunch : public testing::TestWithParam<LeftoverCase> {};

// A launch that fails on the launcher's side while its new process hangs before its exec leaves no process
// behind: the caller frees the request it runs on once the launch returns.
TEST_P(FailedLaunch, LeavesNoProcessBehind) {
    const LeftoverCase& c = GetParam();
    Fifo fifo;
    ASSERT_FALSE(fifo.fifo().empty());
    ChildOutcome outcome = RunInChild([&] {
        if (c.fault == LaunchFault::WatchdogFull && !fill_watchdog())
            return std::string("watchdog not filled");
        LaunchRequest request;
        request.executable = "/bin/true";
        request.std[0] = {kStdRead, fifo.fifo().c_str()};
        request.detached = c.detached;
        request.endWithLauncher = c.fault != LaunchFault::WaitFails;
        if (c.fault == LaunchFault::NoPidfd) seams::pidfd = {1, ENOSYS};
        if (c.fault == LaunchFault::WaitFails) seams::select = {true, -1, ENOMEM};
        LaunchOutcome launched = launch(request);
        bool gone = c.detached ? EndsWithin(launched.pid, 1000) : waitpid(-1, nullptr, WNOHANG) == -1;
        if (!gone && launched.pid > 0) kill(launched.pid, SIGKILL); // 0 would name this process's group
        return outcome_text(launched.exec) + (gone ? " gone" : " left running");
    });
    EXPECT_EQ(outcome.report, outcome_text(c.expected) + " gone") << outcome.err;
}

constexpr ExecOutcome kWatchdogFull = {PROC_SYSTEM_ERR, ENOSPC, kStepWatchdog, 0};
constexpr ExecOutcome kNoPidfd = {PROC_SYSTEM_ERR, ENOSYS, kStepWatchdog, 0};
constexpr ExecOutcome kWaitFailed = {PROC_SYSTEM_ERR, ENOMEM, kStepLauncher, 0};

INSTANTIATE_TEST_SUITE_P(
    HungOnItsStdin, FailedLaunch,
    testing::Values(LeftoverCase{"detachedWatchdogFull", true, LaunchFault::WatchdogFull, kWatchdogFull},
                    LeftoverCase{"detachedWithoutPidfd", true, LaunchFault::NoPidfd, kNoPidfd},
                    LeftoverCase{"detachedWaitFails", true, LaunchFault::WaitFails, kWaitFailed},
                    LeftoverCase{"attachedWatchdogFull", false, LaunchFault::WatchdogFull, kWatchdogFull},
                    LeftoverCase{"attachedWithoutPidfd", false, LaunchFault::NoPidfd, kNoPidfd},
                    LeftoverCase{"attachedWaitFails", false, LaunchFault::WaitFails, kWaitFailed}),
    CaseName());

void ignore_signal(int) {}

enum class Disposition { Default, Caught, Ignored, Blocked };

struct PendingSignalCase {
    const char* name;
    int signal;
    Disposition inLauncher;
    ExecOutcome expected;
    const char* end; // how the program ended
};

class SignalBeforeExec : public testing::TestWithParam<PendingSignalCase> {};

// A signal sent to a new process before its exec (here while it hangs on its stdin) waits until right before
// the exec. One that dumps core is taken off there and fails the launch: delivered while the process shares
// the launcher's memory, the dump would kill the launcher too on kernels before 5.16. Any other is delivered
// as the launcher's mask lets it through.
TEST_P(SignalBeforeExec, WaitsUntilTheExecAndNeverDumpsCore) {
    const PendingSignalCase& c = GetParam();
    Fifo fifo;
    ASSERT_FALSE(fifo.fifo().empty());
    ChildOutcome outcome = RunInChild([&] {
        rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        if (c.inLauncher == Disposition::Caught) signal(c.signal, ignore_signal);
        if (c.inLauncher == Disposition::Ignored) signal(c.signal, SIG_IGN);
        LaunchOutcome launched;
        int status = -1;
        std::atomic<bool> done = false;
        std::thread launcher([&] {
            sigset_t blocked;
            sigemptyset(&blocked);
            if (c.inLauncher == Disposition::Blocked) sigaddset(&blocked, c.signal);
            pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
            LaunchRequest request;
            request.executable = "/bin/true";
            request.std[0] = {kStdRead, fifo.fifo().c_str()};
            launched = launch(request);
            if (launched.pid > 0) waitpid(launched.pid, &status, 0);
            done = true;
        });
        pid_t hung = 0;
        for (int i = 0; i < 5000 && (hung = SleepingChild()) == 0; ++i)
            usleep(1000);
        kill(hung, c.signal);
        while (!done && !fifo.open_writer()) // lets the new process go on, unless the signal killed it
            usleep(1000);
        launcher.join();
        std::string end = launched.ok() && WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                          : launched.ok() && WIFSIGNALED(status)
                              ? "signal " + std::to_string(WTERMSIG(status))
                              : "none";
        return outcome_text(launched.exec) + " detail " + std::to_string(launched.exec.detail) + ", " + end;
    });
    EXPECT_EQ(outcome.report,
              outcome_text(c.expected) + " detail " + std::to_string(c.expected.detail) + ", " + c.end)
        << "status " << outcome.status << ": " << outcome.err;
}

constexpr ExecOutcome failedBy(int signal) {
    return {PROC_SYSTEM_ERR, EINTR, kStepExec, signal};
}

INSTANTIATE_TEST_SUITE_P(
    HungOnItsStdin, SignalBeforeExec,
    testing::Values(
        PendingSignalCase{"quitAtDefault", SIGQUIT, Disposition::Default, failedBy(SIGQUIT), "none"},
        PendingSignalCase{"quitCaught", SIGQUIT, Disposition::Caught, failedBy(SIGQUIT), "none"},
        PendingSignalCase{"abortAtDefault", SIGABRT, Disposition::Default, failedBy(SIGABRT), "none"},
        PendingSignalCase{"quitIgnored", SIGQUIT, Disposition::Ignored, {}, "exit 0"},
        PendingSignalCase{"quitBlocked", SIGQUIT, Disposition::Blocked, {}, "exit 0"},
        PendingSignalCase{"terminate", SIGTERM, Disposition::Default, {}, "signal 15"}),
    CaseName());

struct MaskCase {
    const char* name;
    bool dumpingIgnored; // every signal that dumps core ignored in the launcher: none to take off
    int blocked;         // blocked in the launching thread, 0 for none
    const char* expected;
};

class MaskAtExec : public testing::TestWithParam<MaskCase> {};

// The program starts with the launching thread's signal mask, whatever the launcher does with the signals
// that dump core.
TEST_P(MaskAtExec, IsTheLaunchingThreads) {
    const MaskCase& c = GetParam();
    std::string status = "/tmp/quillon-mask-" + std::to_string(getpid());
    ChildOutcome outcome = RunInChild([&] {
        for (int signal : {SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGXCPU, SIGXFSZ, SIGSYS})
            if (c.dumpingIgnored) ::signal(signal, SIG_IGN);
        sigset_t mask;
        sigemptyset(&mask);
        if (c.blocked != 0) sigaddset(&mask, c.blocked);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        LaunchRequest request;
        request.executable = "/bin/cat";
        char* arguments[] = {const_cast<char*>("/proc/self/status"), nullptr};
        request.arguments = arguments;
        request.std[1] = {kStdWrite, status.c_str()};
        LaunchOutcome launched = launch(request);
        if (!launched.ok()) return outcome_text(launched.exec);
        await_end(launched, false);
        std::smatch line;
        std::string text = ReadFile(status);
        return std::regex_search(text, line, std::regex("SigBlk:\\s*(\\w+)")) ? line[1].str() : text;
    });
    unlink(status.c_str());
    EXPECT_EQ(outcome.report, c.expected) << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(Launcher, MaskAtExec,
                         testing::Values(MaskCase{"defaults", false, 0, "0000000000000000"},
                                         MaskCase{"dumpingIgnored", true, 0, "0000000000000000"},
                                         MaskCase{"dumpingIgnoredUsr1Blocked", true, SIGUSR1, "0000000000000200"}),
                         CaseName());

struct JoinCase {
    const char* name;
    int group; // 0, 1: the tree's v1 groups (joins[group]); 2: its v2 group, where clone3 can't start it
    bool detached;
};

class UnjoinableGroup : public testing::TestWithParam<JoinCase> {};

// A group the new process can't write itself into (here a cgroup.procs that is /dev/full) fails the launch
// as a join, with its errno. The details 1 and 2 would make the API name a controller missing from every
// hierarchy, which is not what happened.
TEST_P(UnjoinableGroup, IsToldAsAJoinAndNotAsAMissingController) {
    const JoinCase& c = GetParam();
    char dir[] = "/tmp/quillon-group-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string procs = std::string(dir) + "/cgroup.procs";
    ASSERT_EQ(symlink("/dev/full", procs.c_str()), 0);
    ChildOutcome outcome = RunInChild([&] {
        LaunchRequest request;
        request.executable = "/bin/true";
        request.detached = c.detached;
        UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
        UniqueFd group(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (c.group < 2) {
            request.joins[c.group] = full.get();
        } else {
            request.cgroupFd = group.get();
            (c.detached ? seams::secondCloneIntoCgroup : seams::cloneIntoCgroup) = {1, ENOSYS};
        }
        LaunchOutcome launched = launch(request);
        if (launched.ok() && !c.detached) waitpid(launched.pid, nullptr, 0);
        int detail = launched.exec.detail;
        bool namesController = detail == 1 || detail == 2;
        return outcome_text(launched.exec) + (namesController ? " naming a controller" : " a join");
    });
    unlink(procs.c_str());
    rmdir(dir);
    EXPECT_EQ(outcome.report, outcome_text({PROC_SYSTEM_ERR, ENOSPC, kStepCgroup, 0}) + " a join");
}

INSTANTIATE_TEST_SUITE_P(DevFull, UnjoinableGroup,
                         testing::Values(JoinCase{"firstV1Group", 0, false},
                                         JoinCase{"secondV1Group", 1, false},
                                         JoinCase{"ownV2Group", 2, false},
                                         JoinCase{"ownV2GroupDetached", 2, true}),
                         CaseName());
} // namespace
