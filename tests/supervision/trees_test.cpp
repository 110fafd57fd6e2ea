// Contained trees as the event set and the natives see them (trees.h), and the kill of a process with
// everything below it (tree.h): where they meet faults (no descriptor left, no memory) and races with the
// tree's own end. Each case runs in a forked child that is a subreaper, so that every process it starts is
// reaped in the case.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/child.h"
#include "support/named_case.h"
#include "support/seams.h"
#include "supervision/supervision_internal.h"
#include "supervision/tree.h"
#include "supervision/trees.h"

namespace fs = std::filesystem;

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

// Whether the child ends within `millis`, then reaped; needs no descriptor.
bool reaped_within(int pid, int millis) {
    for (int waited = 0; waited <= millis; waited += 5) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) return true;
        usleep(5000);
    }
    return false;
}

// Opens /dev/null until the process has no descriptor left (the soft limit lowered first, so that few are
// needed); the caller closes them with give_back.
std::vector<int> exhaust_descriptors() {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_cur < 256 ? limit.rlim_cur : 256;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> held;
    held.reserve(limit.rlim_cur);
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        held.push_back(fd);
    return held;
}

void give_back(std::vector<int>& held) {
    for (int fd : held)
        close(fd);
    held.clear();
}

// A process that leads a process group of its own and waits to be killed.
pid_t group_leader() {
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        for (;;)
            pause();
    }
    setpgid(pid, pid); // whichever of the two runs first
    return pid;
}

// A process in the given v2 group (the cgroup.procs below `group`, "" for the group itself) that waits
// to be killed; -1 when it couldn't join (then it has ended).
pid_t member_in(int group, const char* below = "") {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        std::string procs = *below == 0 ? "cgroup.procs" : std::string(below) + "/cgroup.procs";
        int file = openat(group, procs.c_str(), O_WRONLY | O_CLOEXEC);
        char joined = file >= 0 && write(file, "0", 1) == 1 ? 1 : 0;
        (void)!write(ready[1], &joined, 1);
        if (joined == 0) _exit(126);
        for (;;)
            pause();
    }
    close(ready[1]);
    char joined = 0;
    bool ok = read(ready[0], &joined, 1) == 1 && joined == 1;
    close(ready[0]);
    if (!ok) {
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

// Why a cgroup tree can't be made here, or "".
std::string no_cgroup_trees() {
    if (geteuid() != 0) return "needs root to make cgroups";
    const CgroupPlaces* places = cgroup_places();
    if (places == nullptr || places->unified[0] == 0) return "no writable cgroup v2 hierarchy";
    return "";
}

#define SKIP_WITHOUT_CGROUP_TREES()                                                                          \
    do {                                                                                                     \
        std::string why = no_cgroup_trees();                                                                 \
        if (!why.empty()) GTEST_SKIP() << why;                                                               \
    } while (0)

// A registered cgroup tree with a member that waits to be killed in `below` its group (the groups `made`
// first, parents first): the token (0 when something couldn't be made), the member, the group's path.
struct MemberTree {
    int64_t token = 0;
    pid_t member = -1;
    std::string path;
};

MemberTree tree_with_member(const std::vector<const char*>& made = {}, const char* below = "") {
    int err = 0;
    const char* missing = nullptr;
    Tree* tree = new_tree({}, &err, &missing);
    if (tree == nullptr) return {};
    int group = tree_start_group(tree);
    MemberTree out{0, -1, fs::read_symlink("/proc/self/fd/" + std::to_string(group))};
    for (const char* dir : made)
        if (mkdirat(group, dir, 0755) != 0) {
            discard_tree(tree);
            return out;
        }
    out.member = member_in(group, below);
    out.token = register_tree(tree, out.member, 0);
    return out;
}

// Settles a tree whose members are gone (as the event set does) and lets it go: whether it settled.
bool settle_and_release(int64_t token) {
    bool released = false;
    bool settled = false;
    for (int i = 0; i < 200 && !(settled = tree_settle(token, &released)); ++i)
        usleep(10000);
    release_tree(token);
    return settled;
}

// ---- A process-group tree (no cgroup v2) whose members can't be told: /proc can't be read without a
// descriptor. It must count as living, so that nobody takes it for ended and stops following it.

struct CantTellCase {
    const char* name;
    std::function<std::string(int64_t token, pid_t root)> look; // what is seen while no descriptor is left
    const char* expected;
};

// A tree refused for want of a controller's hierarchy gives back what it took (counted after a warm-up: the
// heap keeps some of its own bookkeeping for good).
TEST(Tree, RefusedForAMissingControllerKeepsNothing) {
    int err = 0;
    const char* missing = nullptr;
    Tree* tree = nullptr;
    size_t before = 0;
    for (int i = 0; i < 1100 && tree == nullptr; ++i) {
        if (i == 100) before = HeapInUse();
        tree = new_tree({64 << 20, -1}, &err, &missing, nullptr);
    }
    size_t after = HeapInUse();
    EXPECT_EQ(tree, nullptr);
    EXPECT_EQ(err, ENODEV);
    EXPECT_STREQ(missing, "memory");
    EXPECT_EQ(after, before);
}

class ProcessGroupTreeWithoutDescriptors : public testing::TestWithParam<CantTellCase> {};

TEST_P(ProcessGroupTreeWithoutDescriptors, CountsAsLiving) {
    const CantTellCase& c = GetParam();
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        pid_t root = group_leader();
        CgroupPlaces none = {};
        int err = 0;
        const char* missing = nullptr;
        Tree* tree = new_tree({}, &err, &missing, &none);
        int64_t token = tree == nullptr ? 0 : register_tree(tree, root, 0);
        if (token == 0) return "no tree: " + std::to_string(err);
        if (tree_kind(token) != TreeKind::ProcessGroup) return "not a process-group tree";
        std::vector<int> held = exhaust_descriptors();
        int exhausted = errno;
        std::string said = c.look(token, root);
        give_back(held);
        if (exhausted != EMFILE) return "descriptors not exhausted: " + std::to_string(exhausted);
        kill(root, SIGKILL);
        waitpid(root, nullptr, 0);
        if (!settle_and_release(token)) said += ", never settled once the root was gone";
        return said;
    });
    EXPECT_EQ(outcome.report, c.expected) << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(
    CantTell, ProcessGroupTreeWithoutDescriptors,
    testing::Values(CantTellCase{"empty",
                                 [](int64_t token, pid_t) {
                                     TreeUsage usage;
                                     return std::string(tree_empty(token, &usage) ? "empty" : "living");
                                 },
                                 "living"},
                    CantTellCase{"settle",
                                 [](int64_t token, pid_t) {
                                     bool released = false;
                                     return std::string(tree_settle(token, &released) ? "settled" : "living");
                                 },
                                 "living"},
                    // The event set looks again a little later (as it does for a tree without pidfds).
                    CantTellCase{"waker",
                                 [](int64_t token, pid_t) {
                                     bool priority = true;
                                     int waker = tree_waker(token, &priority);
                                     if (waker >= 0) close(waker);
                                     return std::string(waker == kLookLater ? "look later"
                                                                            : std::to_string(waker));
                                 },
                                 "look later"},
                    CantTellCase{"kill",
                                 [](int64_t token, pid_t root) {
                                     int err = tree_kill(token);
                                     if (err != 0) return std::string(strerror(err));
                                     return std::string(reaped_within(root, 1000) ? "killed" : "not killed");
                                 },
                                 "killed"}),
    CaseName());

// ---- The kill of a process with everything below it, when the tree can't be read whole: the fault is
// reported, and nothing is left stopped for good.

struct KillFaultCase {
    const char* name;
    std::function<void()> arm;    // makes the fault, right before the kill
    std::function<void()> disarm; // right after it
    int result;
    int sysErr;
    bool rootKilled;
};

class KillTreeFault : public testing::TestWithParam<KillFaultCase> {};

TEST_P(KillTreeFault, IsReportedAndLeavesNothingStopped) {
    const KillFaultCase& c = GetParam();
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        int told[2];
        if (pipe2(told, O_CLOEXEC) != 0) return "pipe";
        pid_t root = fork();
        if (root == 0) { // leads a group; below it a process in a group of its own, which only /proc shows
            setpgid(0, 0);
            pid_t below = fork();
            if (below == 0) {
                setpgid(0, 0);
                for (;;)
                    pause();
            }
            (void)!write(told[1], &below, sizeof below);
            for (;;)
                pause();
        }
        close(told[1]);
        pid_t below = 0;
        if (read(told[0], &below, sizeof below) != sizeof below) return "no descendant";
        UnixProcessData* record = new_record();
        snprintf(record->pid, kPidTextSize, "%d", root);
        int sysErr = 0;
        if (unix_AdoptProcess(record, &sysErr) != PROC_SUCCESS) return "adopt";
        c.arm();
        int result = kill_tree(record, &sysErr);
        c.disarm();
        std::string report = "result=" + std::to_string(result) + " errno=" + strerror(sysErr);
        report += EndsWithin(root, 1000) ? " root killed" : " root lives";
        usleep(50000);
        for (int pid : {root, below})
            if (ProcessState(pid) == 'T')
                report += " left stopped:" + std::string(pid == root ? "root" : "below");
        destroy_record(record);
        return report;
    });
    std::string expected = "result=" + std::to_string(c.result) + " errno=" + strerror(c.sysErr) +
                           (c.rootKilled ? " root killed" : " root lives");
    EXPECT_EQ(outcome.report, expected) << outcome.err;
}

std::vector<int> held_for_kill;

INSTANTIATE_TEST_SUITE_P(KillTree, KillTreeFault,
                         testing::Values(
                             // The root is stopped, the search for what is below it fails at its first
                             // allocation: the root is killed all the same.
                             KillFaultCase{"outOfMemory",
                                           [] {
                                               seams::malloc = {seams::kAlways, ENOMEM};
                                           },
                                           [] { seams::malloc = {}; }, PROC_OUT_OF_MEMORY, ENOMEM, true},
                             // Not even whether the tree holds this process can be told: nothing is sent.
                             KillFaultCase{"outOfDescriptors", [] { held_for_kill = exhaust_descriptors(); },
                                           [] { give_back(held_for_kill); }, PROC_OUT_OF_FILE_HANDLES, EMFILE,
                                           false}),
                         CaseName());

// ---- Cgroup trees.

// The event set's waker of a cgroup tree is an open file of its own: reads of the group's state by other
// threads (an empty check, a kill's look, a signal's freeze) can't take the notification of its end, which
// for a tree whose member pidfd isn't watched is the only news of it.
TEST(CgroupTree, WakerTellsTheEndThoughOthersReadTheGroupMeanwhile) {
    SKIP_WITHOUT_CGROUP_TREES();
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        auto [token, member, path] = tree_with_member();
        if (member <= 0 || token == 0) return "no tree or member";
        bool priority = false;
        int waker = tree_waker(token, &priority);
        if (waker < 0 || !priority) return "waker " + std::to_string(waker);
        // The kernel sends a group's notifications 10 ms apart at most (a later one waits): the member lives
        // longer than that, and the other reader reads again after it, so that it has seen every one.
        usleep(30000);
        kill(member, SIGKILL);
        waitpid(member, nullptr, 0);
        TreeUsage usage;
        for (int i = 0; i < 200 && !tree_empty(token, &usage); ++i)
            usleep(10000);
        usleep(30000);
        tree_empty(token, &usage);
        pollfd change = {waker, POLLPRI, 0};
        std::string report = poll(&change, 1, 2000) == 1 ? "woken" : "not woken";
        close(waker);
        if (!settle_and_release(token)) report += ", never settled";
        return report;
    });
    EXPECT_EQ(outcome.report, "woken") << outcome.err;
}

// A member that made a group below the tree's and lives there is found (to be watched), and once it has
// ended, the tree's groups go with the one it made.
TEST(CgroupTree, MemberInAGroupItMadeIsFoundAndItsGroupGoesWithTheTree) {
    SKIP_WITHOUT_CGROUP_TREES();
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        auto [token, member, path] = tree_with_member({"made", "made/deeper", "spare"}, "made/deeper");
        if (member <= 0 || token == 0) return "no tree or member";
        std::string report = tree_member(token) == member ? "found" : "not found";
        bool released = false;
        if (tree_settle(token, &released)) report += ", settled while a member lives";
        kill(member, SIGKILL);
        waitpid(member, nullptr, 0);
        if (!settle_and_release(token)) report += ", never settled";
        report += fs::exists(path) ? ", left behind" : ", removed";
        return report;
    });
    EXPECT_EQ(outcome.report, "found, removed") << outcome.err;
}

// A kill or a signal that races the tree's own end (a time limit reached as the program exits) is no
// failure: the event set may remove the groups between the call's look and its write.
TEST(CgroupTree, KillAndSignalRacingTheEndSucceed) {
    SKIP_WITHOUT_CGROUP_TREES();
    ChildOutcome outcome = RunAsSubreaper(
        [&]() -> std::string {
            std::string failures;
            for (int round = 0; round < 40 && failures.empty(); ++round) {
                auto [token, member, path] = tree_with_member();
                if (member <= 0 || token == 0) return "no tree or member";
                std::atomic<bool> settled{false};
                std::thread settler([&] { // the event set's part
                    bool released = false;
                    while (!tree_settle(token, &released)) {
                    }
                    settled = true;
                });
                std::thread reaper([&] { waitpid(member, nullptr, 0); }); // the kill below ends it

                while (!settled) {
                    if (int e = tree_kill(token); e != 0) failures += " kill:" + std::string(strerror(e));
                    if (int e = tree_signal(token, SIGWINCH); e != 0)
                        failures += " signal:" + std::string(strerror(e));
                }
                reaper.join();
                settler.join();
                release_tree(token);
            }
            return failures.empty() ? "ok" : failures.substr(0, 300);
        },
        60);
    EXPECT_EQ(outcome.report, "ok") << outcome.err;
}
} // namespace
