#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/supervision.h"

namespace {
struct Record {
    UnixProcessData* data;
    explicit Record(int pid) : data(NewProcessData()) { snprintf(data->pid, kPidTextSize, "%d", pid); }
    ~Record() {
        unix_doneWithProcess(data, nullptr);
        free(data);
    }
};

pid_t child_exiting_with(int code) {
    pid_t pid = fork();
    if (pid == 0) _exit(code);
    return pid;
}

pid_t sleeping_child() {
    pid_t pid = fork();
    if (pid == 0) {
        pause();
        _exit(0);
    }
    return pid;
}

// Polls until the probe sees the end (or two seconds pass).
void probe_until_dead(UnixProcessData* data) {
    int sysErr = 0;
    for (int i = 0; i < 200 && load_field(data->isAlive) != 0; ++i) {
        ASSERT_EQ(unix_PingProcess(data, &sysErr), PROC_SUCCESS);
        if (load_field(data->isAlive) != 0) usleep(10000);
    }
}

struct EndCase {
    const char* name;
    int exitCode;   // -1: killed
    int signal;
    int expected;
};

class ProbeSeesTheEnd : public testing::TestWithParam<EndCase> {};

TEST_P(ProbeSeesTheEnd, OfAChild) {
    const EndCase& c = GetParam();
    pid_t pid = c.exitCode >= 0 ? child_exiting_with(c.exitCode) : sleeping_child();
    if (c.signal != 0) kill(pid, c.signal);
    Record record(pid);
    int sysErr = 0;
    ASSERT_EQ(unix_AdoptProcess(record.data, &sysErr), PROC_SUCCESS) << "a child still to be collected is alive";
    probe_until_dead(record.data);
    EXPECT_EQ(record.data->isAlive, 0);
    EXPECT_EQ(record.data->exitCode, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Ends, ProbeSeesTheEnd,
                         testing::Values(EndCase{"exit3", 3, 0, 3}, EndCase{"exit0", 0, 0, 0},
                                         EndCase{"killed", -1, SIGKILL, 9}, EndCase{"terminated", -1, SIGTERM, 15}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Probe, SelfIsAliveThroughKillWithSignalZero) {
    Record self(getpid());
    int sysErr = 0;
    EXPECT_EQ(unix_AdoptProcess(self.data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(self.data->isAlive, 1);
    EXPECT_EQ(sysErr, 0);
}

TEST(Probe, AVanishedProcessThatIsNoChildHasExitedWithCodeZero) {
    pid_t pid = child_exiting_with(5);
    waitpid(pid, nullptr, 0);
    Record record(pid);
    int sysErr = 0;
    EXPECT_EQ(unix_AdoptProcess(record.data, &sysErr), PROC_HAS_EXITED);
    EXPECT_EQ(record.data->exitCode, 0);
}

TEST(Probe, AnotherUsersProcessIsASystemErrorWithEperm) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to drop a child to nobody";
    pid_t checker = fork();
    if (checker == 0) {
        // As nobody, probe init (pid 1), which belongs to root and is no child.
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
        Record record(1);
        int sysErr = 0;
        int result = unix_AdoptProcess(record.data, &sysErr);
        _exit(result == PROC_SYSTEM_ERR && sysErr == EPERM ? 0 : 1);
    }
    int status = 0;
    waitpid(checker, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// A status collected while another thread holds stateMutex is stored by the next holder, not lost.
TEST(Probe, AStatusCollectedWhileTheLockIsBusyIsHeldOver) {
    pid_t pid = child_exiting_with(42);
    Record record(pid);
    record.data->isAlive = 1;
    usleep(50000);
    pthread_mutex_lock(&record.data->stateMutex);
    int sysErr = 0;
    std::thread([&] { EXPECT_EQ(unix_PingProcess(record.data, &sysErr), PROC_SUCCESS); }).join();
    EXPECT_EQ(load_field(record.data->isAlive), 1) << "busy lock: the record is not changed";
    unlock_state(record.data);
    EXPECT_EQ(record.data->isAlive, 0);
    EXPECT_EQ(record.data->exitCode, 42);
}

TEST(Wait, TimedWaitArithmeticIsTheSumOfTheNaps) {
    pid_t pid = sleeping_child();
    Record record(pid);
    record.data->isAlive = 1;
    int sysErr = 0;
    EXPECT_EQ(unix_WaitForProcessTerminationWithTimeout(record.data, 0, &sysErr), PROC_STILL_ACTIVE);
    time_t start = time(nullptr);
    EXPECT_EQ(unix_WaitForProcessTerminationWithTimeout(record.data, 1, &sysErr), PROC_STILL_ACTIVE);
    EXPECT_LE(time(nullptr) - start, 2);
    kill(pid, SIGKILL);
    EXPECT_EQ(unix_WaitForProcessTerminationWithTimeout(record.data, 0xFFFFFFFFu, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(record.data->exitCode, 9);
}

TEST(Wait, BlockingWaitStoresTheStatusAndFallsBackToPollingForNonChildren) {
    pid_t pid = child_exiting_with(7);
    Record child(pid);
    child.data->isAlive = 1;
    int sysErr = 0;
    EXPECT_EQ(unix_WaitForProcessTermination(child.data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(child.data->exitCode, 7);
    EXPECT_EQ(child.data->isAlive, 0);

    Record gone(pid); // collected already: ECHILD, then the probe finds ESRCH
    gone.data->isAlive = 1;
    EXPECT_EQ(unix_WaitForProcessTermination(gone.data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(gone.data->exitCode, 0);
}

TEST(Signals, VanishedProcessesAreNoFailureAndKillMapsEperm) {
    pid_t pid = child_exiting_with(0);
    waitpid(pid, nullptr, 0);
    Record gone(pid);
    int sysErr = -1;
    EXPECT_EQ(unix_StopProcess(gone.data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(unix_KillProcess(gone.data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(unix_GenerateJVMThreadDump(gone.data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(sysErr, 0);
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to drop a child to nobody";
    pid_t checker = fork();
    if (checker == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
        Record init(1);
        int err = 0;
        int killed = unix_KillProcess(init.data, &err);
        int killErr = err;
        int stopped = unix_StopProcess(init.data, &err);
        bool ok = killed == PROC_ACCESS_DENIED && killErr == EPERM && stopped == PROC_SYSTEM_ERR && err == EPERM;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(checker, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
} // namespace
