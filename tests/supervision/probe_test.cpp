#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/supervision.h"
#include "runtime/support.h"
#include "support/child.h"
#include "support/seams.h"
#include "supervision/supervision_internal.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

struct Record {
    UnixProcessData* data;
    explicit Record(int pid) : data(new_record()) { snprintf(data->pid, kPidTextSize, "%d", pid); }
    ~Record() { destroy_record(data); }
};

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
    int exitCode; // -1: killed
    int signal;
    int expected;
};

class ProbeSeesTheEnd : public testing::TestWithParam<EndCase> {};

TEST_P(ProbeSeesTheEnd, OfAChild) {
    const EndCase& c = GetParam();
    pid_t pid = fork();
    if (pid == 0) {
        if (c.exitCode < 0) pause(); // until the signal
        _exit(c.exitCode);
    }
    ASSERT_GT(pid, 0); // a signal to -1 would reach every process
    if (c.signal != 0) kill(pid, c.signal);
    Record record(pid);
    record.data->isAlive = 1; // as after a launch: the child may or may not have ended yet
    probe_until_dead(record.data);
    EXPECT_EQ(record.data->isAlive, 0);
    EXPECT_EQ(record.data->exitCode, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Ends, ProbeSeesTheEnd,
                         testing::Values(EndCase{"exit3", 3, 0, 3}, EndCase{"exit0", 0, 0, 0},
                                         EndCase{"killed", -1, SIGKILL, 9},
                                         EndCase{"terminated", -1, SIGTERM, 15}),
                         CaseName());

// Where the system offers no pidfd, a process is followed by its PID: waits still end, with naps, and the
// trace says so.
TEST(WithoutPidfd, ProcessesAreFollowedByTheirPid) {
    ChildOutcome outcome = RunInChild([] {
        setenv("__JNI_PROCESS_DEBUG", "", 1);
        process_log_init_dbg();
        seams::pidfd = {seams::kAlways, ENOSYS};
        char* argv[] = {const_cast<char*>("-c"), const_cast<char*>("sleep 0.2; exit 9"), nullptr};
        UnixProcessData* data = new_record();
        copy_bounded(data->pid, "0", kPidTextSize);
        int sysErr = 0;
        int launched = unix_CreateProcess("/bin/sh", argv, nullptr, nullptr, 20, nullptr, 022, nullptr, nullptr,
                                          0, data, &sysErr);
        int waited = unix_WaitForProcessTerminationWithTimeout(data, 10, &sysErr);
        std::string result = std::to_string(launched) + " " + std::to_string(waited) + " " +
                             std::to_string(data->exitCode);
        destroy_record(data);
        return result;
    });
    EXPECT_EQ(outcome.report, "0 0 9");
    EXPECT_NE(outcome.out.find("No pidfd for process ["), std::string::npos);
}
} // namespace
