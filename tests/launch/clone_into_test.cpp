// clone_into_cgroup against real cgroup v2 groups, called as a launch calls it: from a thread of its own with
// every signal blocked, the new process running on an mmap'd stack with a guard page at its low end. Each
// test makes a group below this process's own v2 group and removes it afterwards; this process is never
// moved.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <grp.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "launch/launch_internal.h"
#include "launch/launch_support.h"
#include "launch/raw_syscall.h"
#include "support/child.h"
#include "support/seams.h"
#include "support/named_case.h"

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

constexpr size_t kStackSize = 256 * 1024;

// Whether this kernel makes a process into a group, probed without making one: clone3 with CLONE_INTO_CGROUP
// and a descriptor above INT_MAX is refused with EINVAL from 5.7 on, E2BIG before (a field it doesn't know is
// set), ENOSYS without clone3 or under a filter that refuses it. Empty when it does, else why not.
std::string missing_kernel_support() {
    uint64_t args[11] = {};
    args[0] = 0x200000000ULL; // CLONE_INTO_CGROUP
    args[10] = ~0ULL;
    long result = syscall(SYS_clone3, args, sizeof args);
    if (result == 0) _exit(0); // never: no group has that descriptor
    if (result > 0) {
        waitpid(static_cast<pid_t>(result), nullptr, __WALL);
        return "clone3 accepted an impossible group descriptor";
    }
    if (errno == EINVAL) return "";
    if (errno == ENOSYS) return "no clone3 on this kernel (before 5.3, or refused by a seccomp filter)";
    if (errno == E2BIG) return "no CLONE_INTO_CGROUP on this kernel (before 5.7)";
    return "clone3 probe failed with errno " + std::to_string(errno);
}

// A stack as the launch maps one: MAP_STACK, a guard page at its low end, part of the range handed over.
class GuardedStack {
  public:
    GuardedStack() {
        void* base = mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED) return;
        base_ = static_cast<char*>(base);
        mprotect(base_, static_cast<size_t>(getpagesize()), PROT_NONE);
    }
    ~GuardedStack() {
        if (base_ != nullptr) munmap(base_, kStackSize);
    }
    char* low() const { return base_; }

  private:
    char* base_ = nullptr;
};

struct Spawned {
    pid_t pid = 0;
    int err = 0;
};

// Runs `call` as a launch makes its new process: from a thread of its own, every signal blocked.
template <class Call> void in_launching_thread(Call call) {
    std::thread([&] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        call();
    }).join();
}

Spawned spawn(int (*main)(void*), void* argument, void* stackLow, size_t stackSize, int cgroupFd) {
    Spawned spawned;
    in_launching_thread([&] {
        spawned.pid = clone_into_cgroup(main, argument, stackLow, stackSize, cgroupFd);
        spawned.err = errno;
    });
    return spawned;
}

std::string status_text(int status) {
    if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(status);
}

// The status of a child of this process, waited for without __WALL: found only when its exit signal is
// SIGCHLD.
std::string reap(pid_t pid) {
    int status = 0;
    pid_t got = waitpid(pid, &status, 0);
    return got == pid ? status_text(status) : "waitpid: " + std::string(strerror(errno));
}

std::string err_name(int err) {
    const char* name = strerrorname_np(err);
    return name != nullptr ? name : "errno " + std::to_string(err);
}

class CloneIntoCgroup : public testing::Test {
  protected:
    void SetUp() override {
        std::string missing = missing_kernel_support();
        if (!missing.empty()) GTEST_SKIP() << missing;
        std::string why = group_.create();
        if (!why.empty()) GTEST_SKIP() << why;
        ownBefore_ = own_v2_path();
    }
    void TearDown() override {
        if (!ownBefore_.empty()) {
            EXPECT_EQ(own_v2_path(), ownBefore_) << "the test process was moved";
        }
    }
    TestGroup group_;
    GuardedStack stack_;
    std::string ownBefore_;
};

// What a new process reports, in the memory it shares with the test until it ends.
struct Report {
    int status = 0; // main's result
    long length = 0;
    char cgroup[4096] = {};
};

// Reads /proc/self/cgroup as its first action and returns the status it was given.
NEW_PROCESS_CODE int report_cgroup(void* argument) {
    Report& report = *static_cast<Report*>(argument);
    long fd = sys_open("/proc/self/cgroup", O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return 100;
    long got;
    while ((got = sys_read(static_cast<int>(fd), report.cgroup + report.length,
                           sizeof report.cgroup - 1 - static_cast<size_t>(report.length))) > 0)
        report.length += got;
    sys_close(static_cast<int>(fd));
    return got < 0 ? 101 : report.status;
}

// The group is given by its directory or by an O_PATH descriptor of it.
TEST_F(CloneIntoCgroup, RunsMainWithItsArgumentInsideTheGroupAndExitsWithItsResult) {
    ASSERT_NE(stack_.low(), nullptr);
    UniqueFd path(open(group_.dir().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    ASSERT_GE(path.get(), 0) << strerror(errno);
    for (int fd : {group_.fd(), path.get()}) {
        Report report;
        report.status = 42;
        Spawned s = spawn(report_cgroup, &report, stack_.low(), kStackSize, fd);
        ASSERT_GT(s.pid, 0) << strerror(s.err);
        EXPECT_EQ(reap(s.pid), "exit 42");
        EXPECT_EQ(V2Line(report.cgroup), "0::" + group_.path())
            << (fd == path.get() ? "O_PATH" : "directory");
    }
}

// Execs the program of an argv/envp pair; 127 when the exec fails.
struct Exec {
    const char* path;
    char* const* argv;
    char* const* envp;
};

NEW_PROCESS_CODE int exec_program(void* argument) {
    const Exec& exec = *static_cast<Exec*>(argument);
    sys_execve(exec.path, exec.argv, exec.envp);
    return 127;
}

// The program itself confirms it runs in the group: grep exits 0 only when its own /proc/self/cgroup holds
// the group's line.
TEST_F(CloneIntoCgroup, ExecsAProgramThatRunsInTheGroupAndIsReaped) {
    ASSERT_NE(stack_.low(), nullptr);
    const char* grep = access("/bin/grep", X_OK) == 0 ? "/bin/grep" : "/usr/bin/grep";
    if (access(grep, X_OK) != 0) GTEST_SKIP() << "no grep to exec";
    std::string line = "0::" + group_.path();
    const char* argv[] = {grep, "-qxF", line.c_str(), "/proc/self/cgroup", nullptr};
    const char* envp[] = {nullptr};
    Exec exec = {grep, const_cast<char* const*>(argv), const_cast<char* const*>(envp)};
    Spawned s = spawn(exec_program, &exec, stack_.low(), kStackSize, group_.fd());
    ASSERT_GT(s.pid, 0) << strerror(s.err);
    EXPECT_EQ(reap(s.pid), "exit 0");
    EXPECT_TRUE(group_.processes().empty());
}

// Groups that can't take the process: the call fails with the kernel's errno and makes no process. Each case
// runs in a forked child of the test, which has no children of its own to tell apart.
struct RefusalCase {
    const char* name;
    // The descriptor to pass, prepared in the forked child (`dir` is the test group's directory); -2 when
    // this machine lacks what the case needs.
    int (*prepare)(const std::string& dir);
    const char* needs;
    const char* err;
};

class CloneIntoRefusingGroup : public CloneIntoCgroup, public testing::WithParamInterface<RefusalCase> {};

TEST_P(CloneIntoRefusingGroup, FailsWithoutProcess) {
    ASSERT_NE(stack_.low(), nullptr);
    const RefusalCase& c = GetParam();
    ChildOutcome outcome = RunInChild([&] {
        int fd = c.prepare(group_.dir());
        if (fd == -2) return std::string("unprepared");
        Report report;
        Spawned s = spawn(report_cgroup, &report, stack_.low(), kStackSize, fd);
        if (s.pid > 0) waitpid(s.pid, nullptr, 0);
        return "pid " + std::to_string(s.pid) + " " + err_name(s.err) +
               " children:" + (NoChildrenLeft() ? "none" : "some");
    });
    if (outcome.report == "unprepared") GTEST_SKIP() << c.name << " needs " << c.needs;
    EXPECT_EQ(outcome.report, "pid -1 " + std::string(c.err) + " children:none")
        << status_text(outcome.status);
    EXPECT_TRUE(group_.processes().empty());
}

int open_closed(const std::string&) {
    int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

// The directory of a cgroup v1 hierarchy, as a hybrid host has beside the v2 one.
int open_v1_hierarchy(const std::string&) {
    for (const Mount& m : mounts())
        if (m.type == "cgroup") return open(m.point.c_str(), O_RDONLY | O_DIRECTORY);
    return -2;
}

// A group removed after its directory was opened, as when it goes between the request and the launch.
int open_removed_group(const std::string& dir) {
    std::string gone = dir + "/gone";
    if (mkdir(gone.c_str(), 0755) != 0) return -2;
    int fd = open(gone.c_str(), O_RDONLY | O_DIRECTORY);
    rmdir(gone.c_str());
    return fd;
}

// The test group, with the forked child dropped to nobody, who may not write its cgroup.procs.
int open_as_nobody(const std::string& dir) {
    if (geteuid() != 0) return -2;
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) return -2;
    return fd;
}

INSTANTIATE_TEST_SUITE_P(
    Groups, CloneIntoRefusingGroup,
    testing::Values(
        RefusalCase{"negative", [](const std::string&) { return -1; }, "", "EBADF"},
        RefusalCase{"closed", open_closed, "", "EBADF"},
        RefusalCase{"file", [](const std::string&) { return open("/proc/self/cgroup", O_RDONLY); }, "",
                    "EBADF"},
        RefusalCase{"directory", [](const std::string&) { return open("/tmp", O_RDONLY | O_DIRECTORY); }, "",
                    "EBADF"},
        RefusalCase{"controlFile",
                    [](const std::string& dir) { return open((dir + "/cgroup.procs").c_str(), O_RDONLY); },
                    "", "EBADF"},
        RefusalCase{"v1", open_v1_hierarchy, "a cgroup v1 hierarchy", "EBADF"},
        RefusalCase{"removed", open_removed_group, "a subgroup of the test group", "ENOENT"},
        RefusalCase{"unprivileged", open_as_nobody, "root, to drop to nobody", "EACCES"}),
    CaseName());

// The new process gets 16-byte alignment for its calls whatever the top of the stack it was given.
struct AlignmentCase {
    const char* name;
    size_t topOffset; // how far below the end of the mapping the stack's top is
};

class CloneIntoCgroupStack : public CloneIntoCgroup, public testing::WithParamInterface<AlignmentCase> {};

// An alignas(16) local used by aligned SSE stores (movaps faults on an unaligned address); its address
// modulo 16.
NEW_PROCESS_CODE __attribute__((noinline)) int aligned_local_misalignment() {
    alignas(16) unsigned char block[32];
    asm volatile("" : : "r"(block) : "memory");
#if defined(__x86_64__)
    asm volatile("pxor %%xmm0, %%xmm0\n\tmovaps %%xmm0, (%0)\n\tmovaps %%xmm0, 16(%0)"
                 :
                 : "r"(block)
                 : "xmm0", "memory");
#elif defined(__aarch64__)
    asm volatile("movi v0.16b, #0\n\tstr q0, [%0]\n\tstr q0, [%0, #16]" : : "r"(block) : "v0", "memory");
#endif
    return static_cast<int>(reinterpret_cast<uintptr_t>(block) % 16);
}

NEW_PROCESS_CODE int report_alignment(void* argument) {
    *static_cast<int*>(argument) = aligned_local_misalignment();
    return 0;
}

TEST_P(CloneIntoCgroupStack, CallsMainAligned) {
    ASSERT_NE(stack_.low(), nullptr);
    int misalignment = -1;
    Spawned s =
        spawn(report_alignment, &misalignment, stack_.low(), kStackSize - GetParam().topOffset, group_.fd());
    ASSERT_GT(s.pid, 0) << strerror(s.err);
    EXPECT_EQ(reap(s.pid), "exit 0");
    EXPECT_EQ(misalignment, 0);
}

const auto kTops = testing::Values(AlignmentCase{"aligned", 0}, AlignmentCase{"below8", 8},
                                   AlignmentCase{"below4", 4}, AlignmentCase{"below1", 1});
INSTANTIATE_TEST_SUITE_P(Tops, CloneIntoCgroupStack, kTops, CaseName());

// The seam stands in for a kernel without clone3: ENOSYS, no process; the next call is real again.
TEST_F(CloneIntoCgroup, SeamFailsWithEnosysOnce) {
    ASSERT_NE(stack_.low(), nullptr);
    ChildOutcome outcome = RunInChild([&] {
        Report report;
        seams::cloneIntoCgroup = {1, ENOSYS};
        Spawned faked = spawn(report_cgroup, &report, stack_.low(), kStackSize, group_.fd());
        std::string text = "pid " + std::to_string(faked.pid) + " " + err_name(faked.err) +
                           " children:" + (NoChildrenLeft() ? "none" : "some");
        Spawned real = spawn(report_cgroup, &report, stack_.low(), kStackSize, group_.fd());
        return text + ", then " + (real.pid > 0 ? reap(real.pid) : err_name(real.err));
    });
    EXPECT_EQ(outcome.report, "pid -1 ENOSYS children:none, then exit 0") << status_text(outcome.status);
}
// The plain clone a detached launch's intermediate process makes, without the C library: main runs with its
// argument on the stack given, aligned for its calls whatever the top, and its result is the exit status.
struct PlainReport {
    int misalignment = -1;
    int status = 0;
};

NEW_PROCESS_CODE int report_plain(void* argument) {
    PlainReport& report = *static_cast<PlainReport*>(argument);
    report.misalignment = aligned_local_misalignment();
    return report.status;
}

class CloneVmRaw : public testing::TestWithParam<AlignmentCase> {};

TEST_P(CloneVmRaw, CallsMainAlignedWithItsArgumentAndExitsWithItsResult) {
    GuardedStack stack;
    ASSERT_NE(stack.low(), nullptr);
    PlainReport report;
    report.status = 42;
    long pid = 0;
    int err = 0;
    in_launching_thread([&] {
        errno = 0;
        pid = clone_vm_raw(report_plain, &report, stack.low() + kStackSize - GetParam().topOffset);
        err = errno;
    });
    ASSERT_GT(pid, 0) << strerror(static_cast<int>(-pid));
    EXPECT_EQ(err, 0) << "the call leaves errno alone";
    EXPECT_EQ(reap(static_cast<pid_t>(pid)), "exit 42");
    EXPECT_EQ(report.misalignment, 0);
}

INSTANTIATE_TEST_SUITE_P(Tops, CloneVmRaw, kTops, CaseName());
} // namespace
