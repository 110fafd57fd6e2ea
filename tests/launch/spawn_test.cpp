// The launcher's side of a launch, driven through `launch` as the public API drives it: the descriptors it
// makes, what becomes of a new process whose launch fails, and the failure a caller is told. Each case runs in
// a child of the test, so that children, descriptors and the watchdog stay out of the test runner.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "launch/launch_internal.h"
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
} // namespace
