// The launcher's side of a launch, driven through `launch` as the public API drives it: the descriptors it
// makes, what becomes of a new process whose launch fails, and the failure a caller is told. Each case runs in
// a child of the test, so that children, descriptors and the watchdog stay out of the test runner.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "launch/launch_internal.h"
#include "launch/launch_support.h"
#include "launch/raw_syscall.h"
#include "support/child.h"
#include "support/named_case.h"
#include "support/seams.h"

namespace {
using quillon_test::PrintTo;

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
        return "result " + std::to_string(launched.exec.result) +
               " inheritableAtClone " + std::to_string(inheritableAtClone) +
               " madeInheritable " + std::to_string(seams::inheritablePipes - madeBefore);
    });
    EXPECT_EQ(outcome.report, "result 0 inheritableAtClone 0 madeInheritable 0") << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(Launches, LaunchDescriptors,
                         testing::Values(DescriptorCase{"attached", false, false, false},
                                         DescriptorCase{"detached", true, false, false},
                                         DescriptorCase{"attachedEndingWithLauncher", false, true, true},
                                         DescriptorCase{"detachedEndingWithLauncher", true, true, true},
                                         DescriptorCase{"detachedWithPipes", true, false, true}),
                         [](const auto& info) { return std::string(info.param.name); });

// Waits until the process of a launch has ended: an attached one is reaped, a detached one is seen through
// its pidfd.
void await_end(LaunchOutcome& launched, bool detached) {
    if (!detached) {
        waitpid(launched.pid, nullptr, 0);
        return;
    }
    pollfd ended = {launched.pidfd.get(), POLLIN, 0};
    poll(&ended, 1, 10000);
}

std::string v2_line(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("0::", 0) == 0) return line;
    return "";
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
        if (c.clone3Refusal != 0) (c.detached ? seams::secondCloneIntoCgroup : seams::cloneIntoCgroup) = {1, c.clone3Refusal};
        seams::inIntermediate = record_intermediate_cgroup;
        LaunchOutcome launched = launch(request);
        if (launched.ok()) await_end(launched, c.detached);
        std::string said = "result " + std::to_string(launched.exec.result) + "/" + std::to_string(launched.exec.sysErr) +
                           " program " + v2_line(ReadFile(listing));
        if (c.detached) said += " intermediate " + v2_line(intermediateCgroup);
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
                         [](const auto& info) { return std::string(info.param.name); });
} // namespace
