#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "launch/launch_internal.h"
#include "support/child.h"
#include "support/seams.h"

namespace {
// Minutes in one to five digits, no sign, blank or unit; two at the least.
TEST(CreateTimeout, IsMinutesOfOneToFiveDigitsWithAFloorOfTwo) {
    const std::pair<const char*, int64_t> cases[] = {{nullptr, 120}, {"", 120},        {"1", 120},
                                                     {"3", 180},     {"00003", 180},   {"000003", 120},
                                                     {"5m", 120},    {" 5", 120},      {"99999", 5999940}};
    for (auto [value, seconds] : cases) {
        if (value == nullptr)
            unsetenv("__JNI_PROCESS_CREATE_TIMEOUT");
        else
            setenv("__JNI_PROCESS_CREATE_TIMEOUT", value, 1);
        EXPECT_EQ(unix_getStartProcessTimeout(), seconds) << (value ? value : "(unset)");
    }
    unsetenv("__JNI_PROCESS_CREATE_TIMEOUT");
}

// What the new process writes before it closes its end.
struct OutcomeCase {
    const char* name;
    std::string written;
    int result;
    int sysErr; // -1: whatever errno stood at
};

class ExecOutcome : public testing::TestWithParam<OutcomeCase> {};

std::string ints(std::initializer_list<int> values) {
    std::string bytes;
    for (int v : values)
        bytes.append(reinterpret_cast<const char*>(&v), sizeof v);
    return bytes;
}

TEST_P(ExecOutcome, IsReadFromTheChannel) {
    const OutcomeCase& c = GetParam();
    int channel[2];
    int sysErr = 0;
    ASSERT_EQ(InitializePipe(channel, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(fcntl(channel[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(channel[1], F_GETFD), FD_CLOEXEC);
    pid_t writer = fork();
    if (writer == 0) {
        ssize_t ignored = write(channel[1], c.written.data(), c.written.size());
        (void)ignored;
        _exit(0);
    }
    EXPECT_EQ(WaitForExecOutcome(channel, &sysErr), c.result);
    if (c.sysErr != -1) EXPECT_EQ(sysErr, c.sysErr);
    EXPECT_EQ(fcntl(channel[0], F_GETFD), -1) << "read end closed";
    EXPECT_EQ(fcntl(channel[1], F_GETFD), -1) << "write end closed";
    waitpid(writer, nullptr, 0);
}

INSTANTIATE_TEST_SUITE_P(Matrix, ExecOutcome,
                         testing::Values(OutcomeCase{"endOfFile", "", PROC_SUCCESS, 0},
                                         OutcomeCase{"fullRecord", ints({ENOENT, PROC_INVALID_EXECUTABLE}),
                                                     PROC_INVALID_EXECUTABLE, ENOENT},
                                         OutcomeCase{"firstIntOnly", ints({EACCES}), PROC_SYSTEM_ERR, EACCES},
                                         OutcomeCase{"shortSecond", ints({EACCES}) + "ab", PROC_SYSTEM_ERR,
                                                     EACCES},
                                         OutcomeCase{"shortFirst", "ab", PROC_SYSTEM_ERR, -1}),
                         [](const auto& info) { return std::string(info.param.name); });

struct SelectCase {
    const char* name;
    int selectResult;
    int selectErrno;
    int result;
    int sysErr;
};

class SelectOutcome : public testing::TestWithParam<SelectCase> {};

TEST_P(SelectOutcome, MapsTimeOutAndFailure) {
    const SelectCase& c = GetParam();
    int channel[2];
    int sysErr = 0;
    ASSERT_EQ(InitializePipe(channel, &sysErr), PROC_SUCCESS);
    seams::select = {true, c.selectResult, c.selectErrno};
    ChildOutcome outcome = RunInChild([&] {
        int err = 0;
        int result = WaitForExecOutcome(channel, &err);
        return std::to_string(result) + " " + std::to_string(err);
    });
    seams::select = {};
    close(channel[0]);
    close(channel[1]);
    EXPECT_EQ(outcome.report, std::to_string(c.result) + " " + std::to_string(c.sysErr));
    EXPECT_NE(outcome.err.find("Error during WaitForExecOutcome. result=[" + std::to_string(c.selectResult) +
                               "] errno=[" + std::to_string(c.selectErrno) + "]\n"),
              std::string::npos)
        << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(Faked, SelectOutcome,
                         testing::Values(SelectCase{"timeLimit", 0, 0, PROC_CREATE_TIMEOUT, ETIMEDOUT},
                                         SelectCase{"failure", -1, EBADF, PROC_SYSTEM_ERR, EBADF}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ExecOutcome, ReadEndsAbove1023AreWatched) {
    for (int target : {1023, 1024, 1100}) {
        int channel[2];
        int sysErr = 0;
        ASSERT_EQ(InitializePipe(channel, &sysErr), PROC_SUCCESS);
        ASSERT_EQ(dup2(channel[0], target), target);
        close(channel[0]);
        channel[0] = target;
        pid_t writer = fork();
        if (writer == 0) {
            int record[2] = {E2BIG, PROC_SYSTEM_ERR};
            ssize_t ignored = write(channel[1], record, sizeof record);
            (void)ignored;
            _exit(0);
        }
        EXPECT_EQ(WaitForExecOutcome(channel, &sysErr), PROC_SYSTEM_ERR) << target;
        EXPECT_EQ(sysErr, E2BIG) << target;
        waitpid(writer, nullptr, 0);
    }
}

TEST(ExecOutcome, AnInterruptedWaitIsResumed) {
    ChildOutcome outcome = RunInChild([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr); // no SA_RESTART: select returns EINTR
        int channel[2];
        int err = 0;
        InitializePipe(channel, &err);
        pid_t writer = fork();
        if (writer == 0) {
            usleep(300000);
            _exit(0);
        }
        itimerval tick = {{0, 50000}, {0, 50000}};
        setitimer(ITIMER_REAL, &tick, nullptr);
        int result = WaitForExecOutcome(channel, &err);
        itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        return std::to_string(result) + " " + std::to_string(err);
    });
    EXPECT_EQ(outcome.report, "0 0");
}

} // namespace
