// The new process's side of a launch, driven for real: each case runs in a child of the test so that
// descriptors, identity and children stay the test runner's own.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "launch/launch_support.h"
#include "quillon/boundary.h"
#include "quillon/runtime.h"
#include "support/child.h"
#include "support/seams.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

std::string outcome_text(const Launched& l) {
    return std::to_string(l.result) + "/" + std::to_string(l.sysErr);
}
std::string expected(int result, int sysErr) {
    return std::to_string(result) + "/" + std::to_string(sysErr);
}

// Identity of a launched program, read from /proc while it sleeps.
struct IdentityCase {
    const char* name;
    const char* user;
    const char* group;
    std::vector<const char*> variables;
    std::string uid, gid, groups;
};

class LaunchedIdentity : public testing::TestWithParam<IdentityCase> {};

TEST_P(LaunchedIdentity, FollowsRequestAndSwitches) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change identity";
    const IdentityCase& c = GetParam();
    ChildOutcome outcome = RunInChild([&] {
        setgroups(0, nullptr);
        gid_t supplementary[] = {4}; // the launcher's own supplementary group, to be seen replaced or kept
        setgroups(1, supplementary);
        for (const char* variable : c.variables)
            setenv(variable, "", 1);
        std::string created = "/tmp/quillon-owner-" + std::to_string(getpid());
        Request r;
        r.executable = "/bin/sleep";
        r.arguments = {"5"};
        r.user = c.user;
        r.group = c.group;
        r.stdFiles = {nullptr, created.c_str(), nullptr};
        Launched l = Launch(r);
        struct stat st = {};
        stat(created.c_str(), &st);
        unlink(created.c_str());
        std::string facts = StatusField("Uid", l.pid) + "|" + StatusField("Gid", l.pid) + "|" +
                            StatusField("Groups", l.pid) + "|owner " + std::to_string(st.st_uid) + ":" +
                            std::to_string(st.st_gid);
        kill(l.pid, SIGKILL);
        waitpid(l.pid, nullptr, 0);
        return outcome_text(l) + " " + facts;
    });
    auto ids = [](const std::string& id) { return id + "\t" + id + "\t" + id + "\t" + id; };
    EXPECT_EQ(outcome.report,
              "0/0 " + ids(c.uid) + "|" + ids(c.gid) + "|" + c.groups + "|owner " + c.uid + ":" + c.gid);
}

INSTANTIATE_TEST_SUITE_P(
    Root, LaunchedIdentity,
    testing::Values(
        IdentityCase{"userGetsPrimaryGroup", "nobody", nullptr, {}, "65534", "65534", ""},
        IdentityCase{
            "initgroups", "nobody", nullptr, {"__JNI_PROCESS_INITGROUPS"}, "65534", "65534", "65534"},
        IdentityCase{"forcedGroupDisabled",
                     "nobody",
                     nullptr,
                     {"__JNI_PROCESS_DISABLE_FORCEGROUP", "__JNI_PROCESS_INITGROUPS"},
                     "65534",
                     "0",
                     "4"},
        IdentityCase{"groupOnly", nullptr, "nogroup", {"__JNI_PROCESS_INITGROUPS"}, "0", "65534", ""},
        IdentityCase{
            "groupAndUserInitgroups", "nobody", "daemon", {"__JNI_PROCESS_INITGROUPS"}, "65534", "1", "1"},
        IdentityCase{"nothingRequested", nullptr, nullptr, {}, "0", "0", "4"}),
    CaseName());

TEST(LaunchedIdentity, UnprivilegedIsRefusedAtTheForcedGroup) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to drop the launcher to nobody";
    ChildOutcome outcome = RunInChild([] {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            return std::string("drop failed");
        Request r;
        r.user = "root";
        std::string forced = outcome_text(Launch(r));
        r.group = "nogroup"; // its own group is allowed, the user is not
        return forced + " " + outcome_text(Launch(r));
    });
    EXPECT_EQ(outcome.report,
              expected(PROC_INVALID_GROUP, EPERM) + " " + expected(PROC_INVALID_USERNAME, EPERM));
}

// Standard handles, set up in a child and written through.
TEST(StdHandles, AppendOrTruncateJoinedToTheWorkingDirectoryUnderTheMask) {
    TempDir dir;
    std::string out = dir.path() + "/out.log";
    auto write_through = [](const std::string& base, const char* file, const char* text) {
        RunInChild([&] {
            umask(027);
            int err = 0;
            SetUpStdHandles(base.c_str(), {nullptr, file, nullptr}, &err);
            fputs(text, stdout);
            return std::string();
        });
    };
    for (const std::string& base : {dir.path(), dir.path() + "/"}) {
        std::ofstream(out) << "old\n";
        write_through(base, "out.log", "appended\n");
        EXPECT_EQ(ReadFile(out), "old\nappended\n") << base;
    }
    for (bool existing : {true, false}) { // what was there goes; a new file takes the mask
        if (!existing) unlink(out.c_str());
        write_through(dir.path(), "!out.log", "fresh\n");
        EXPECT_EQ(ReadFile(out), "fresh\n") << (existing ? "over old content" : "new file");
    }
    struct stat st = {};
    stat(out.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

struct NameCase {
    const char* name;
    std::string file;
    const char* workingDirectory;
    int result;
    int sysErr;
};

class StdHandleName : public testing::TestWithParam<NameCase> {};

TEST_P(StdHandleName, LimitsAndOpenFailures) {
    const NameCase& c = GetParam();
    ChildOutcome outcome = RunInChild([&] {
        int err = 0;
        int result = SetUpStdHandles(c.workingDirectory, {nullptr, c.file.c_str(), nullptr}, &err);
        return std::to_string(result) + "/" + std::to_string(err);
    });
    EXPECT_EQ(outcome.report, expected(c.result, c.sysErr));
}

const std::string kBase = "/tmp/" + std::string(4000, 'b'); // a base of 4005 characters

INSTANTIATE_TEST_SUITE_P(
    Names, StdHandleName,
    testing::Values(
        NameCase{"absolute4097", "/" + std::string(4096, 'a'), nullptr, PROC_INVALID_FILE, ENAMETOOLONG},
        NameCase{"absolute4096ReachesOpen", "/" + std::string(4095, 'a'), nullptr, PROC_SYSTEM_ERR,
                 ENAMETOOLONG},
        NameCase{"joined4096", std::string(91, 'n'), kBase.c_str(), PROC_INVALID_FILE, ENAMETOOLONG},
        NameCase{"joined4095ReachesOpen", std::string(90, 'n'), kBase.c_str(), PROC_SYSTEM_ERR, ENAMETOOLONG},
        NameCase{"emptyWithoutDirectory", "", nullptr, PROC_INVALID_FILE, ENOENT},
        NameCase{"missingDirectory", "/no/such/dir/out", nullptr, PROC_INVALID_FILE, ENOENT}),
    CaseName());

struct Dup2Case {
    const char* name;
    int err;
    const char* file; // null: the /dev/null path of stdin
    int result;
};

class StdHandleDupFailure : public testing::TestWithParam<Dup2Case> {};

TEST_P(StdHandleDupFailure, MapsTheErrno) {
    const Dup2Case& c = GetParam();
    ChildOutcome outcome = RunInChild([&] {
        int err = 0;
        seams::dup2 = {1, c.err};
        int result = SetUpStdHandles(nullptr, {c.file, nullptr, nullptr}, &err);
        return std::to_string(result) + "/" + std::to_string(err);
    });
    EXPECT_EQ(outcome.report, expected(c.result, c.err));
}

INSTANTIATE_TEST_SUITE_P(Faked, StdHandleDupFailure,
                         testing::Values(Dup2Case{"fileBadf", EBADF, "/etc/hostname", PROC_INVALID_FILE},
                                         Dup2Case{"fileEmfile", EMFILE, "/etc/hostname",
                                                  PROC_OUT_OF_FILE_HANDLES},
                                         Dup2Case{"devNullEnfile", ENFILE, nullptr, PROC_OUT_OF_FILE_HANDLES},
                                         Dup2Case{"devNullBadf", EBADF, nullptr, PROC_INVALID_FILE}),
                         CaseName());

TEST(ClosedStandardDescriptors, StillLaunchAndHearFailures) {
    ChildOutcome outcome = RunInChild([] {
        int report = dup(1);
        close(0);
        close(1);
        close(2);
        Request ok;
        std::string text = outcome_text(Launch(ok));
        Request missing;
        missing.executable = "/no/such/program";
        missing.stdFiles = {nullptr, "/dev/null", "/dev/null"};
        text += " " + outcome_text(Launch(missing));
        close(report);
        return text;
    });
    EXPECT_EQ(outcome.report, "0/0 " + expected(PROC_INVALID_EXECUTABLE, ENOENT));
}

TEST(LaunchingSideFailures, ForkAndPipeFailuresMapAndCloseEverything) {
    struct Case {
        const char* name;
        bool detached;
        seams::Fault cloneFault, pipeFault, secondCloneFault;
        int result, sysErr;
    };
    const Case cases[] = {
        {"attachedForkEagain", false, {1, EAGAIN}, {}, {}, PROC_OUT_OF_MEMORY, EAGAIN},
        {"attachedForkEnomem", false, {1, ENOMEM}, {}, {}, PROC_OUT_OF_MEMORY, ENOMEM},
        {"attachedForkOther", false, {1, ENOSYS}, {}, {}, PROC_SYSTEM_ERR, ENOSYS},
        {"attachedPipe", false, {}, {1, EMFILE}, {}, PROC_SYSTEM_ERR, EMFILE},
        {"detachedForkEnomem", true, {1, ENOMEM}, {}, {}, PROC_OUT_OF_MEMORY, ENOMEM},
        {"detachedForkEagain", true, {1, EAGAIN}, {}, {}, PROC_OUT_OF_MEMORY, EAGAIN},
        {"detachedForkOther", true, {1, ENOSYS}, {}, {}, PROC_SYSTEM_ERR, ENOSYS},
        {"detachedSecondPipe", true, {}, {2, EMFILE}, {}, PROC_OUT_OF_FILE_HANDLES, EMFILE},
        {"detachedSecondForkEagain", true, {}, {}, {1, EAGAIN}, PROC_OUT_OF_MEMORY, EAGAIN},
        {"detachedSecondForkEnomem", true, {}, {}, {1, ENOMEM}, PROC_OUT_OF_MEMORY, ENOMEM},
        {"detachedSecondForkOther", true, {}, {}, {1, ENOSYS}, PROC_SYSTEM_ERR, ENOSYS},
    };
    for (const Case& c : cases) {
        ChildOutcome outcome = RunInChild([&] {
            int before = OpenDescriptorCount();
            seams::clone = c.cloneFault;
            seams::pipe = c.pipeFault;
            seams::secondClone = c.secondCloneFault;
            Launched l = Launch(Request{}, c.detached);
            seams::clone = {};
            seams::pipe = {};
            seams::secondClone = {};
            return outcome_text(l) + " pid:" + std::to_string(l.pid) +
                   " fds:" + std::to_string(OpenDescriptorCount() - before) +
                   " children:" + (NoChildrenLeft() ? "none" : "some");
        });
        std::string pid = c.detached ? "0" : (c.cloneFault.at != 0 ? "-1" : "0");
        EXPECT_EQ(outcome.report, expected(c.result, c.sysErr) + " pid:" + pid + " fds:0 children:none")
            << c.name;
    }
}

// No launch may hang in its child because another thread held the registry, the environment lock or
// the trace mutexes at the fork.
TEST(ForkSafety, LaunchesWithIdentityNeverHangWhileOtherThreadsHoldLocks) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to launch as nobody";
    ChildOutcome outcome = RunInChild(
        [] {
            std::atomic<bool> stop{false};
            // Added once before the threads start: adding a name moves the environment's vector, which a
            // getenv in another thread may be reading. Replacing the value only takes the lock.
            setenv("QUILLON_STRESS", "x", 1);
            std::vector<std::thread> busy;
            busy.emplace_back([&] {
                char buffer[4096];
                passwd p;
                passwd* found;
                group g;
                group* gfound;
                while (!stop) {
                    getpwnam_r("nobody", &p, buffer, sizeof buffer, &found);
                    getgrnam_r("nogroup", &g, buffer, sizeof buffer, &gfound);
                }
            });
            busy.emplace_back([&] {
                while (!stop)
                    setenv("QUILLON_STRESS", "x", 1);
            });
            busy.emplace_back([&] {
                while (!stop)
                    process_log_init_dbg();
            });
            std::atomic<int> failures{0};
            std::vector<std::thread> launchers;
            for (int t = 0; t < 3; ++t)
                launchers.emplace_back([&] {
                    for (int i = 0; i < 60; ++i) {
                        Request r;
                        r.user = "nobody";
                        r.group = "nogroup";
                        time_t start = time(nullptr);
                        Launched l = Launch(r);
                        if (l.result != PROC_SUCCESS || time(nullptr) - start > 10) ++failures;
                        waitpid(l.pid, nullptr, 0);
                    }
                });
            for (auto& t : launchers)
                t.join();
            stop = true;
            for (auto& t : busy)
                t.join();
            return std::to_string(failures.load());
        },
        300);
    EXPECT_EQ(outcome.report, "0") << "status " << outcome.status << ", stderr: " << outcome.err.substr(0, 2000);
}
// A new process that hangs before its exec (stdin a FIFO nobody writes) is killed when the wait for the exec
// runs out (here at once), attached or detached, and nothing of it stays.
TEST(PreExecHang, IsKilledWhenTheWaitRunsOut) {
    Fifo fifo;
    ASSERT_FALSE(fifo.fifo().empty());
    for (bool detached : {false, true}) {
        Request r;
        r.stdFiles = {fifo.fifo().c_str(), nullptr, nullptr};
        seams::select = {true, 0, 0};
        Launched l = Launch(r, detached);
        EXPECT_EQ(outcome_text(l), expected(PROC_CREATE_TIMEOUT, ETIMEDOUT)) << detached;
        for (int i = 0; i < 200 && kill(l.pid, 0) == 0; ++i) // a detached one is init's to reap
            usleep(10000);
        EXPECT_EQ(kill(l.pid, 0), -1) << "killed, detached " << detached;
    }
    EXPECT_TRUE(NoChildrenLeft());
}

// A launch that hangs before its exec holds up no other launch. The first launch is held with its
// exec-outcome channel open while the second makes its new process, which copies that channel and hangs on a
// FIFO; the first then runs its program and must see the end of file without waiting for the second.
std::atomic<int> firstLaunchStage = 0; // 1: held in its clone, 2: let go

TEST(PreExecHang, HoldsUpNoOtherLaunch) {
    Fifo fifo;
    ASSERT_FALSE(fifo.fifo().empty());
    seams::beforeClone = [] {
        firstLaunchStage = 1;
        while (firstLaunchStage != 2)
            usleep(1000);
    };
    std::atomic<bool> firstDone = false;
    std::thread first([&] {
        EXPECT_EQ(outcome_text(Launch(Request{})), expected(PROC_SUCCESS, 0));
        firstDone = true;
    });
    while (firstLaunchStage != 1)
        usleep(1000);
    std::thread hung([&] {
        Request r;
        r.stdFiles = {fifo.fifo().c_str(), nullptr, nullptr};
        EXPECT_EQ(outcome_text(Launch(r)), expected(PROC_SUCCESS, 0));
    });
    while (SleepingChild() == 0) // the hung one, in the open of the FIFO
        usleep(1000);
    firstLaunchStage = 2;
    for (int i = 0; i < 100 && !firstDone; ++i) // a failing case waits until the hung one is let go below
        usleep(100000);
    bool firstAlone = firstDone;
    close(open(fifo.fifo().c_str(), O_WRONLY));
    first.join();
    hung.join();
    EXPECT_TRUE(firstAlone) << "the first launch waited for the hung one";
    while (waitpid(-1, nullptr, 0) > 0) {
    }
}

// The sweep reaches descriptors above the limit in force at the launch.
TEST(DescriptorSweep, ClosesDescriptorsAboveTheCurrentLimit) {
    ChildOutcome outcome = RunInChild([] {
        rlimit limit = {4096, 4096};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || dup2(1, 3000) != 3000) return std::string("no room");
        limit.rlim_cur = 1024;
        setrlimit(RLIMIT_NOFILE, &limit);
        std::string listing = "/tmp/quillon-fds-" + std::to_string(getpid());
        Request r;
        r.executable = "/bin/ls";
        r.arguments = {"/proc/self/fd"};
        r.stdFiles = {nullptr, listing.c_str(), nullptr};
        Launched l = Launch(r);
        waitpid(l.pid, nullptr, 0);
        std::string fds = ReadFile(listing);
        unlink(listing.c_str());
        return fds;
    });
    EXPECT_EQ(outcome.report, "0\n1\n2\n3\n"); // 3 is ls's own listing of the directory
}
} // namespace
