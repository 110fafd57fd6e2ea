#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "quillon/boundary.h"
#include "launch/launch_internal.h"
#include "support/child.h"
#include "support/seams.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

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
    int step;
};

class ExecOutcome : public testing::TestWithParam<OutcomeCase> {};

std::string ints(std::initializer_list<int> values) {
    return std::string(reinterpret_cast<const char*>(std::data(values)), values.size() * sizeof(int));
}

// A child that writes the bytes into the channel, then ends: the channel's write end is then closed.
pid_t write_and_end(int fd, const std::string& bytes) {
    pid_t writer = fork();
    if (writer == 0) _exit(write(fd, bytes.data(), bytes.size()) < 0);
    return writer;
}

TEST_P(ExecOutcome, IsReadFromTheChannel) {
    const OutcomeCase& c = GetParam();
    ExecOutcomeChannel channel;
    int sysErr = 0;
    ASSERT_EQ(channel.open(&sysErr), PROC_SUCCESS);
    const int ends[2] = {channel.read_end(), channel.write_end()};
    EXPECT_EQ(fcntl(ends[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(ends[1], F_GETFD), FD_CLOEXEC);
    pid_t writer = write_and_end(ends[1], c.written);
    ::ExecOutcome outcome = WaitForExecOutcome(channel);
    EXPECT_EQ(outcome.result, c.result);
    if (c.sysErr != -1) EXPECT_EQ(outcome.sysErr, c.sysErr);
    EXPECT_EQ(outcome.step, c.step);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1) << "read end closed";
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1) << "write end closed";
    waitpid(writer, nullptr, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Matrix, ExecOutcome,
    testing::Values(OutcomeCase{"endOfFile", "", PROC_SUCCESS, 0, kStepNone},
                    OutcomeCase{"fullRecord", ints({ENOENT, PROC_INVALID_FILE, kStepStdHandle, 2}),
                                PROC_INVALID_FILE, ENOENT, kStepStdHandle},
                    OutcomeCase{"withoutStep", ints({ENOENT, PROC_INVALID_EXECUTABLE}),
                                PROC_INVALID_EXECUTABLE, ENOENT, kStepLauncher},
                    OutcomeCase{"firstIntOnly", ints({EACCES}), PROC_SYSTEM_ERR, EACCES, kStepLauncher},
                    OutcomeCase{"shortSecond", ints({EACCES}) + "ab", PROC_SYSTEM_ERR, EACCES, kStepLauncher},
                    OutcomeCase{"shortFirst", "ab", PROC_SYSTEM_ERR, -1, kStepLauncher}),
    CaseName());

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
    ExecOutcomeChannel channel;
    int sysErr = 0;
    ASSERT_EQ(channel.open(&sysErr), PROC_SUCCESS);
    seams::select = {true, c.selectResult, c.selectErrno};
    ChildOutcome outcome = RunInChild([&] {
        ::ExecOutcome waited = WaitForExecOutcome(channel);
        return std::to_string(waited.result) + " " + std::to_string(waited.sysErr);
    });
    seams::select = {};
    EXPECT_EQ(outcome.report, std::to_string(c.result) + " " + std::to_string(c.sysErr));
    EXPECT_NE(outcome.err.find("Error during WaitForExecOutcome. result=[" + std::to_string(c.selectResult) +
                               "] errno=[" + std::to_string(c.selectErrno) + "]\n"),
              std::string::npos)
        << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(Faked, SelectOutcome,
                         testing::Values(SelectCase{"timeLimit", 0, 0, PROC_CREATE_TIMEOUT, ETIMEDOUT},
                                         SelectCase{"failure", -1, EBADF, PROC_SYSTEM_ERR, EBADF}),
                         CaseName());

// Every free descriptor below `target` taken, so that the next pipe lands on it; closed again when it goes.
class DescriptorsBelow {
  public:
    explicit DescriptorsBelow(int target) {
        int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        taken_.push_back(null);
        for (int fd = 3; fd < target; ++fd)
            if (fcntl(fd, F_GETFD) == -1 && fcntl(null, F_DUPFD_CLOEXEC, fd) == fd) taken_.push_back(fd);
    }
    ~DescriptorsBelow() {
        for (int fd : taken_)
            close(fd);
    }

  private:
    std::vector<int> taken_;
};

TEST(ExecOutcome, ReadEndsAbove1023AreWatched) {
    for (int target : {1023, 1024, 1100}) {
        ExecOutcomeChannel channel;
        int sysErr = 0;
        {
            DescriptorsBelow filled(target);
            ASSERT_EQ(channel.open(&sysErr), PROC_SUCCESS);
        }
        ASSERT_EQ(channel.read_end(), target);
        pid_t writer = write_and_end(channel.write_end(), ints({E2BIG, PROC_SYSTEM_ERR}));
        ::ExecOutcome outcome = WaitForExecOutcome(channel);
        EXPECT_EQ(outcome.result, PROC_SYSTEM_ERR) << target;
        EXPECT_EQ(outcome.sysErr, E2BIG) << target;
        waitpid(writer, nullptr, 0);
    }
}

TEST(ExecOutcome, AnInterruptedWaitIsResumed) {
    ChildOutcome outcome = RunInChild([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr); // no SA_RESTART: select returns EINTR
        ExecOutcomeChannel channel;
        int err = 0;
        channel.open(&err);
        pid_t writer = fork();
        if (writer == 0) {
            usleep(300000);
            _exit(0);
        }
        itimerval tick = {{0, 50000}, {0, 50000}};
        setitimer(ITIMER_REAL, &tick, nullptr);
        ::ExecOutcome outcome = WaitForExecOutcome(channel);
        return std::to_string(outcome.result) + " " + std::to_string(outcome.sysErr);
    });
    EXPECT_EQ(outcome.report, "0 0");
}
} // namespace
