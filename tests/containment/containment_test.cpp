// Contained trees on the cgroups of this machine, and the watchdog. Trees are started by forked children
// of the test that are subreapers, so that every orphan of a case is reaped in the case; every group a
// case makes is removed by the case, also when it fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <poll.h>
#include <regex>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "containment/containment.h"
#include "support/child.h"
#include "support/named_case.h"
#include "support/seams.h"

namespace fs = std::filesystem;

namespace {
using quillon_test::CaseName, quillon_test::PrintTo;

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

int open_pidfd(int pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool lives(int pid) {
    return !EndsWithin(pid, 0);
}

// Writes "0" to a cgroup.procs: the calling process joins that group.
bool join(int procs) {
    return procs < 0 || write(procs, "0", 1) == 1;
}

bool join_tree(const TreeGroup& group) {
    UniqueFd procs(
        group.unified.get() < 0 ? -1 : openat(group.unified.get(), "cgroup.procs", O_WRONLY | O_CLOEXEC));
    return join(procs.get()) && join(group.joins[0].get()) && join(group.joins[1].get());
}

// Waits until the group is empty, by cgroup.events: false when it still isn't after `millis`.
bool empties_within(const TreeGroup& group, int millis) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);;) {
        bool populated = true;
        if (tree_group_populated(group, &populated) != 0) return false;
        if (!populated) return true;
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd change = {group.events.get(), POLLPRI, 0};
        poll(&change, 1, static_cast<int>(left.count()));
    }
}

// fork/exec of `argv`, joining the tree's groups first when one is given.
pid_t start(const std::vector<const char*>& argv, const TreeGroup* group = nullptr) {
    pid_t pid = fork();
    if (pid == 0) {
        if (group != nullptr && !join_tree(*group)) _exit(126);
        std::vector<char*> args;
        for (const char* arg : argv)
            args.push_back(const_cast<char*>(arg));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

// The line a member of a tree writes into the file, waited for up to two seconds; "" when none came.
std::string line_in(const std::string& path) {
    for (int i = 0; i < 200; ++i) {
        if (std::string text = ReadFile(path); text.ends_with('\n')) return text;
        usleep(10000);
    }
    return "";
}

// Waits up to two seconds for a member of the group (which joins it before its exec).
void await_populated(const TreeGroup& group) {
    bool populated = false;
    for (int i = 0; i < 200 && !populated; ++i)
        if (tree_group_populated(group, &populated) != 0 || !populated) usleep(10000);
}

// A tree group made on this machine's places, killed and removed at the end of the case.
class RealGroup {
  public:
    // Empty when the group could be made; else the reason to skip.
    std::string make(const TreeLimits& limits = {}) {
        if (geteuid() != 0) return "needs root to make cgroups";
        places_ = cgroup_places();
        if (places_ == nullptr || places_->unified[0] == 0) return "no writable cgroup v2 hierarchy";
        if (limits.memoryBytes >= 0 && places_->memory[0] == 0)
            return "no hierarchy carries the memory controller";
        if (limits.processes >= 0 && places_->pids[0] == 0) return "no hierarchy carries the pids controller";
        const char* missing = nullptr;
        int err = make_tree_group(*places_, limits, &group, &missing);
        made_ = err == 0;
        return made_ ? "" : "make_tree_group failed: " + std::string(strerror(err));
    }
    ~RealGroup() {
        if (!made_ || group.owners[0].get() < 0) return; // not made, or removed by the case
        kill_tree_group(group);
        EXPECT_TRUE(empties_within(group, 3000)) << group.name;
        EXPECT_EQ(remove_tree_group(&group), 0) << group.name;
    }
    const CgroupPlaces& places() const { return *places_; }
    std::string path() const { return std::string(places_->unified) + "/" + group.name; }
    TreeGroup group;

  private:
    const CgroupPlaces* places_ = nullptr;
    bool made_ = false;
};

#define MAKE_OR_SKIP(real, ...)                                                                              \
    do {                                                                                                     \
        std::string why = (real).make(__VA_ARGS__);                                                          \
        if (!why.empty() && why.rfind("make_tree_group", 0) == 0) FAIL() << why;                             \
        if (!why.empty()) GTEST_SKIP() << why;                                                               \
    } while (0)

// ---- Places, from synthetic mountinfo and cgroup files. "@" stands for the case's scratch directory.

struct PlacesCase {
    const char* name;
    const char* mountinfo;
    const char* cgroup;
    const char* subtreeControl; // of the v2 group, or null
    const char* unified;        // expected places, "" for none
    const char* memory;
    bool memoryUnified;
    const char* pids;
    bool pidsUnified;
};

std::string in(const std::string& text, const std::string& root) {
    return std::regex_replace(text, std::regex("@"), root);
}

class CgroupPlacesFrom : public testing::TestWithParam<PlacesCase> {};

TEST_P(CgroupPlacesFrom, SyntheticFiles) {
    const PlacesCase& c = GetParam();
    std::string root = fs::temp_directory_path() / ("quillon-places-" + std::to_string(getpid()));
    fs::remove_all(root);
    fs::create_directories(root);
    for (const char* place : {c.unified, c.memory, c.pids})
        if (*place != 0) fs::create_directories(in(place, root));
    if (c.subtreeControl != nullptr)
        write_file(in(c.unified, root) + "/cgroup.subtree_control", c.subtreeControl);
    write_file(root + "/mountinfo", in(c.mountinfo, root));
    write_file(root + "/cgroup", c.cgroup);
    CgroupPlaces places;
    ASSERT_EQ(find_cgroup_places(&places, (root + "/mountinfo").c_str(), (root + "/cgroup").c_str()), 0);
    EXPECT_EQ(places.unified, in(c.unified, root));
    EXPECT_EQ(places.memory, in(c.memory, root));
    EXPECT_EQ(places.memoryUnified, c.memoryUnified);
    EXPECT_EQ(places.pids, in(c.pids, root));
    EXPECT_EQ(places.pidsUnified, c.pidsUnified);
    fs::remove_all(root);
}

const char* const kHybridMounts = "22 1 0:21 / /proc rw - proc proc rw\n"
                                  "31 23 0:28 / @/cg ro - tmpfs tmpfs ro,mode=755\n"
                                  "32 31 0:29 / @/cg/cpu,cpuacct rw shared:7 - cgroup cgroup rw,cpu,cpuacct\n"
                                  "35 31 0:32 / @/cg/memory rw shared:9 master:2 - cgroup cgroup rw,memory\n"
                                  "36 31 0:33 / @/cg/memory_pressure rw - cgroup cgroup rw,memory_pressure\n"
                                  "39 31 0:36 / @/cg/pids rw - cgroup cgroup rw,pids\n"
                                  "41 31 0:38 / @/cg/unified rw - cgroup2 cgroup2 rw,nsdelegate\n";
const char* const kHybridCgroup = "8:pids:/\n4:memory:/svc/a b\n2:cpu,cpuacct:/\n1:name=systemd:/x\n0::/\n";
const char* const kPureMounts = "25 1 0:22 / /sys rw - sysfs sysfs rw\n"
                                "30 25 0:26 / @/sys/fs/cgroup rw - cgroup2 cgroup2 rw,memory_recursiveprot\n";
const char* const kPureCgroup = "0::/user.slice/app.service\n";
// Mounts that show a part of their hierarchy, as in a container; the space in a mount point is escaped.
const char* const kContainerMounts = "40 30 0:40 /docker/abc @/c\\040g/memory rw - cgroup cgroup rw,memory\n"
                                     "41 30 0:41 /docker/abc @/c\\040g/pids rw - cgroup cgroup rw,pids\n"
                                     "42 30 0:42 /kube/pod1 @/c\\040g/unified rw - cgroup2 cgroup2 rw\n";
const char* const kContainerCgroup = "5:memory:/docker/abc\n6:pids:/docker/abcdef\n0::/kube/pod1/ctr\n";
// A group whose path fits the cgroup file but not a path once under its mount point: no place rather than a
// cut one.
const std::string kLongMemoryCgroup = "8:pids:/\n4:memory:/" + std::string(PATH_MAX - 16, 'a') + "\n0::/\n";

INSTANTIATE_TEST_SUITE_P(
    CgroupHosts, CgroupPlacesFrom,
    testing::Values(
        PlacesCase{"hybrid", kHybridMounts, kHybridCgroup, "", "@/cg/unified", "@/cg/memory/svc/a b", false,
                   "@/cg/pids", false},
        PlacesCase{"pureV2MemoryAndPids", kPureMounts, kPureCgroup, "cpu memory pids\n",
                   "@/sys/fs/cgroup/user.slice/app.service", "@/sys/fs/cgroup/user.slice/app.service", true,
                   "@/sys/fs/cgroup/user.slice/app.service", true},
        PlacesCase{"pureV2WithoutMemory", kPureMounts, kPureCgroup, "cpu io pids_x\n",
                   "@/sys/fs/cgroup/user.slice/app.service", "", false, "", false},
        PlacesCase{"pureV2GroupMissing", kPureMounts, kPureCgroup, nullptr, "", "", false, "", false},
        // pids "/docker/abcdef" is not below the mount's root "/docker/abc": that mount doesn't show it.
        PlacesCase{"containerRoots", kContainerMounts, kContainerCgroup, "memory\n", "@/c g/unified/ctr",
                   "@/c g/unified/ctr", true, "", false},
        PlacesCase{"memoryGroupPathTooLong", kHybridMounts, kLongMemoryCgroup.c_str(), "", "@/cg/unified", "",
                   false, "@/cg/pids", false},
        PlacesCase{"noCgroupAtAll", "22 1 0:21 / /proc rw - proc proc rw\n", "", nullptr, "", "", false, "",
                   false}),
    CaseName());

TEST(CgroupPlaces, MissingFileIsAnError) {
    CgroupPlaces places;
    EXPECT_EQ(find_cgroup_places(&places, "/proc/self/mountinfo", "/nonexistent/cgroup"), ENOENT);
    EXPECT_EQ(find_cgroup_places(&places, "/nonexistent/mountinfo", "/proc/self/cgroup"), ENOENT);
}

TEST(CgroupPlaces, OfThisProcess) {
    const CgroupPlaces* places = cgroup_places();
    ASSERT_NE(places, nullptr);
    EXPECT_EQ(places, cgroup_places());
    std::string cgroup = ReadFile("/proc/self/cgroup");
    if (cgroup.find("0::/") != std::string::npos && geteuid() == 0) {
        std::string own = cgroup.substr(cgroup.find("0::/") + 3);
        own = own.substr(0, own.find('\n'));
        ASSERT_STRNE(places->unified, "") << "this process is in a v2 group: " << own;
        std::string unified = places->unified;
        EXPECT_TRUE(own == "/" || unified.ends_with(own)) << unified << " vs " << own;
    }
    for (const char* place : {places->unified, places->memory, places->pids})
        EXPECT_TRUE(*place == 0 || fs::is_directory(place)) << place;
    if (places->memoryUnified) EXPECT_STREQ(places->memory, places->unified);
    if (places->pidsUnified) EXPECT_STREQ(places->pids, places->unified);
}

// ---- Making groups: refusals, and removal of what was made when a later step fails.

struct RefusalCase {
    const char* name;
    TreeLimits limits;
    bool memory, memoryUnified, pids; // which places the synthetic host has (unified always, a scratch dir)
    int err;
    const char* missing;
};

class TreeGroupRefused : public testing::TestWithParam<RefusalCase> {};

TEST_P(TreeGroupRefused, MakesNothing) {
    const RefusalCase& c = GetParam();
    std::string scratch = fs::temp_directory_path() / ("quillon-refused-" + std::to_string(getpid()));
    fs::create_directories(scratch);
    CgroupPlaces places = {};
    copy_bounded(places.unified, scratch.c_str(), PATH_MAX);
    if (c.memory)
        copy_bounded(places.memory, c.memoryUnified ? scratch.c_str() : "/nonexistent/memory", PATH_MAX);
    places.memoryUnified = c.memoryUnified;
    if (c.pids) copy_bounded(places.pids, "/nonexistent/pids", PATH_MAX);
    TreeGroup group;
    const char* missing = "unset";
    EXPECT_EQ(make_tree_group(places, c.limits, &group, &missing), c.err);
    EXPECT_STREQ(missing == nullptr ? "" : missing, c.missing);
    EXPECT_TRUE(fs::is_empty(scratch)) << "left behind in " << scratch;
    EXPECT_EQ(group.unified.get(), -1);
    EXPECT_EQ(group.killFile.get(), -1);
    fs::remove_all(scratch);
}

INSTANTIATE_TEST_SUITE_P(
    TreeLimitsRefused, TreeGroupRefused,
    testing::Values(RefusalCase{"memoryNowhere", {64 << 20, -1}, false, false, true, ENODEV, "memory"},
                    RefusalCase{"pidsNowhere", {-1, 10}, true, false, false, ENODEV, "pids"},
                    RefusalCase{"bothNowhere", {1 << 20, 5}, false, false, false, ENODEV, "memory"},
                    RefusalCase{"belowMinusOne", {-2, -1}, true, false, true, EINVAL, ""},
                    // The scratch directory is no cgroup: the group made there lacks cgroup.events, and goes.
                    RefusalCase{"notACgroup", {-1, -1}, false, false, false, ENOENT, ""}),
    CaseName());

TEST(TreeGroup, FailedLimitRemovesTheMadeGroups) {
    if (geteuid() != 0 || cgroup_places() == nullptr || cgroup_places()->unified[0] == 0)
        GTEST_SKIP() << "needs root and a writable cgroup v2 hierarchy";
    CgroupPlaces places = *cgroup_places();
    copy_bounded(places.memory, "/nonexistent/memory", PATH_MAX); // a v1 place that can't be made
    places.memoryUnified = false;
    TreeGroup group;
    const char* missing = nullptr;
    ASSERT_EQ(make_tree_group(places, {64 << 20, -1}, &group, &missing), ENOENT);
    for (const auto& entry : fs::directory_iterator(places.unified))
        EXPECT_NE(entry.path().filename().string().rfind("quillon-" + std::to_string(getpid()) + "-", 0), 0u)
            << "left behind: " << entry.path();
}

// ---- Trees on this machine.

TEST(TreeGroup, KillEndsEveryMemberAndTheGroupGoes) {
    RealGroup real;
    MAKE_OR_SKIP(real);
    ASSERT_GE(real.group.killFile.get(), 0) << "no cgroup.kill (kernel before 5.14)";
    TempDir dir;
    // Three generations, a member in a session of its own and one whose parent ended (double fork).
    std::string script = "cd " + dir.path() +
                         "; echo $$ > g1; sh -c 'echo $$ > g2; sleep 60 & echo $! > g3; "
                         "setsid sleep 60 & echo $! > s; (sleep 60 & echo $! > d); wait' & wait";
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        start({"/bin/sh", "-c", script.c_str()}, &real.group);
        std::vector<int> members;
        for (const char* name : {"g1", "g2", "g3", "s", "d"})
            members.push_back(atoi(line_in(dir.path() + "/" + name).c_str()));
        std::string procs = "\n" + ReadFile(real.path() + "/cgroup.procs");
        for (int pid : members)
            if (pid == 0 || procs.find("\n" + std::to_string(pid) + "\n") == std::string::npos)
                return "member " + std::to_string(pid) + " not in the group: " + procs;
        TreeGroup copy; // removal through a copy of the owners: it must refuse while members live
        copy_bounded(copy.name, real.group.name, sizeof copy.name);
        copy.owners[0].reset(dup(real.group.owners[0].get()));
        if (int err = remove_tree_group(&copy); err != EBUSY)
            return "removed while populated: " + std::to_string(err);
        if (int err = kill_tree_group(real.group); err != 0) return "kill: " + std::to_string(err);
        if (!empties_within(real.group, 2000)) return "still populated";
        for (int pid : members)
            if (!EndsWithin(pid, 0)) return "member " + std::to_string(pid) + " lives";
        return "ok";
    });
    EXPECT_EQ(outcome.report, "ok") << outcome.err;
    EXPECT_EQ(remove_tree_group(&real.group), 0);
    EXPECT_FALSE(fs::exists(real.path()));
}

TEST(TreeGroup, SignalReachesEveryMemberAndThaws) {
    RealGroup real;
    MAKE_OR_SKIP(real);
    TempDir dir;
    write_file(dir.path() + "/member.sh",
               "trap 'echo x > hit$1' USR1\necho x > up$1\nwhile :; do sleep 0.05; done\n");
    std::string script = "cd " + dir.path() +
                         "; sh ./member.sh 1 & setsid sh ./member.sh 2 & (sh ./member.sh 3 &); "
                         "exec sh ./member.sh 0";
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        start({"/bin/sh", "-c", script.c_str()}, &real.group);
        for (int i = 0; i < 4; ++i)
            if (line_in(dir.path() + "/up" + std::to_string(i)).empty())
                return "member " + std::to_string(i) + " not up";
        if (int err = signal_tree_group(real.group, SIGUSR1); err != 0)
            return "signal: " + std::to_string(err);
        std::string missed;
        for (int i = 0; i < 4; ++i)
            if (line_in(dir.path() + "/hit" + std::to_string(i)).empty()) missed += " " + std::to_string(i);
        std::string freeze = ReadFile(real.path() + "/cgroup.freeze");
        std::string events = ReadFile(real.path() + "/cgroup.events");
        kill_tree_group(real.group);
        empties_within(real.group, 2000);
        if (!missed.empty()) return "missed by the signal:" + missed;
        if (freeze != "0\n" || events.find("frozen 0") == std::string::npos)
            return "left frozen: " + freeze + events;
        return "ok";
    });
    EXPECT_EQ(outcome.report, "ok") << outcome.err << " status " << outcome.status;
}

TEST(TreeGroup, MemoryLimitEndsAGreedyProgram) {
    RealGroup real;
    MAKE_OR_SKIP(real, TreeLimits{64 << 20, -1});
    ChildOutcome outcome = RunAsSubreaper(
        [&] {
            pid_t greedy = fork();
            if (greedy == 0) {
                if (!join_tree(real.group)) _exit(126);
                constexpr size_t kBytes = 256u << 20;
                auto* block = static_cast<volatile char*>(malloc(kBytes));
                for (size_t i = 0; block != nullptr && i < kBytes; i += 4096)
                    block[i] = 1;
                _exit(0);
            }
            int status = 0;
            waitpid(greedy, &status, 0);
            TreeUsage usage = tree_group_usage(real.group);
            std::ostringstream report;
            report << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                                           : "exit " + std::to_string(WEXITSTATUS(status)))
                   << " killedForMemory=" << usage.killedForMemory
                   << " peakOk=" << (usage.peakBytes > (32 << 20) && usage.peakBytes <= (65 << 20));
            return report.str();
        },
        60);
    EXPECT_EQ(outcome.report, std::string(strsignal(SIGKILL)) + " killedForMemory=1 peakOk=1") << outcome.err;
}

TEST(TreeGroup, ProcessLimitStopsAForkLoop) {
    RealGroup real;
    MAKE_OR_SKIP(real, TreeLimits{-1, 10});
    ChildOutcome outcome = RunAsSubreaper([&]() -> std::string {
        int counts[2];
        if (pipe(counts) != 0) return "pipe";
        pid_t forker = fork();
        if (forker == 0) {
            if (!join_tree(real.group)) _exit(126);
            setpgid(0, 0);
            int made = 0, err = 0;
            for (int guard = 0; guard < 40; ++guard) { // the test's own bound, should the limit fail
                pid_t pid = fork();
                if (pid == 0) {
                    pause();
                    _exit(0);
                }
                if (pid < 0) {
                    err = errno;
                    break;
                }
                ++made;
            }
            int words[2] = {made, err};
            write(counts[1], words, sizeof words);
            pause();
            _exit(0);
        }
        int words[2] = {-1, 0};
        read(counts[0], words, sizeof words);
        kill(-forker, SIGKILL);
        return "forks=" + std::to_string(words[0]) + " then " + strerror(words[1]);
    });
    // The limit counts the forking process too.
    EXPECT_EQ(outcome.report, "forks=9 then " + std::string(strerror(EAGAIN))) << outcome.err;
}

// A process that joins the group at `path` (its cgroup.procs) and waits to be killed; 0 when it couldn't.
pid_t member_at(const std::string& path) {
    pid_t member = fork();
    if (member == 0) {
        write_file(path + "/cgroup.procs", "0");
        pause();
        _exit(0);
    }
    for (int i = 0; i < 200 && ReadFile(path + "/cgroup.procs").empty(); ++i)
        usleep(10000);
    return ReadFile(path + "/cgroup.procs").empty() ? 0 : member;
}

// The PID of a process that has ended and been reaped: the one a stale group is named after.
pid_t ended_process() {
    pid_t ended = fork();
    if (ended == 0) _exit(0);
    waitpid(ended, nullptr, 0);
    return ended;
}

// Leftovers of ended processes go, with the groups their members made below them, unless a process lives
// anywhere in them; then they stay whole.
TEST(TreeGroup, StaleGroupsOfEndedProcessesGo) {
    RealGroup real;
    MAKE_OR_SKIP(real);
    pid_t ended = ended_process();
    std::string place = real.places().unified, dead = std::to_string(ended), own = std::to_string(getpid());
    struct Leftover {
        std::string name;
        std::vector<std::string> below; // groups its members made, parents first
        const char* busy;               // where a process lives: "" none, "." the group itself
        bool goes;
    };
    std::vector<Leftover> leftovers = {{"quillon-" + dead + "-7", {}, "", true},
                                       {"quillon-" + dead + "-8", {}, ".", false},
                                       {"quillon-" + dead + "-9", {"made", "made/deeper", "spare"}, "", true},
                                       {"quillon-" + dead + "-10", {"made", "spare"}, "made", false},
                                       {"quillon-" + own + "-99999", {}, "", false},
                                       {"quillon-" + dead + "-7x", {}, "", false},
                                       {"quillon-" + dead, {}, "", false}};
    std::vector<pid_t> members;
    for (const Leftover& leftover : leftovers) {
        ASSERT_TRUE(fs::create_directory(place + "/" + leftover.name)) << leftover.name;
        for (const std::string& below : leftover.below)
            ASSERT_TRUE(fs::create_directory(place + "/" + leftover.name + "/" + below)) << below;
        if (*leftover.busy != 0)
            members.push_back(member_at(place + "/" + leftover.name + "/" + leftover.busy));
    }
    remove_stale_groups(real.places());
    std::string report;
    for (const Leftover& leftover : leftovers) {
        std::string path = place + "/" + leftover.name;
        if (fs::exists(path) == leftover.goes) report += " " + leftover.name;
        for (const std::string& below : leftover.below)
            if (!leftover.goes && !fs::exists(path + "/" + below))
                report += " " + leftover.name + "/" + below;
    }
    for (pid_t member : members) {
        if (member > 0) kill(member, SIGKILL);
        waitpid(member, nullptr, 0);
    }
    for (const Leftover& leftover : leftovers) {
        for (auto below = leftover.below.rbegin(); below != leftover.below.rend(); ++below)
            rmdir((place + "/" + leftover.name + "/" + *below).c_str());
        rmdir((place + "/" + leftover.name).c_str());
    }
    EXPECT_EQ(std::count(members.begin(), members.end(), 0), 0) << "a member couldn't join its group";
    EXPECT_EQ(report, "") << "wrongly kept or removed";
}

// The leftovers go from each hierarchy the host has a place in: the v2 one and each controller's own.
TEST(TreeGroup, StaleGroupsGoFromEveryHierarchy) {
    RealGroup real;
    MAKE_OR_SKIP(real);
    pid_t ended = ended_process();
    const CgroupPlaces& places = real.places();
    std::string name = "/quillon-" + std::to_string(ended) + "-1";
    std::vector<std::string> made;
    for (const char* place : {places.unified, places.memory, places.pids})
        if (*place != 0 && fs::create_directory(place + name)) made.push_back(place + name);
    if (made.size() < 3) {
        for (const std::string& leftover : made)
            rmdir(leftover.c_str());
        GTEST_SKIP() << "needs the memory and pids controllers on hierarchies of their own";
    }
    remove_stale_groups(places);
    for (const std::string& leftover : made)
        EXPECT_FALSE(fs::exists(leftover)) << leftover << " kept";
}

// Two signals to one tree at once: each goes out with the group frozen, neither thaws it under the other
// (which would leave the other waiting for a freeze that never comes), and the group ends thawed.
TEST(TreeGroup, SignalsAtOnceEachFreezeAndThaw) {
    RealGroup real;
    MAKE_OR_SKIP(real);
    ChildOutcome outcome = RunAsSubreaper(
        [&] {
            pid_t member = start({"/bin/sleep", "60"}, &real.group);
            await_populated(real.group);
            std::atomic<int> failed{0};
            auto signaller = [&] {
                for (int i = 0; i < 25 && failed == 0; ++i)
                    if (int err = signal_tree_group(real.group, SIGWINCH); err != 0) failed = err;
            };
            std::thread first(signaller), second(signaller);
            first.join();
            second.join();
            std::string freeze = ReadFile(real.path() + "/cgroup.freeze");
            std::string report = failed != 0 ? strerror(failed) : freeze != "0\n" ? "left frozen" : "ok";
            if (!lives(member)) report += ", the member ended";
            return report;
        },
        60);
    EXPECT_EQ(outcome.report, "ok") << outcome.err;
}

// A process started with a standard descriptor closed: what the library opens for containment (a group's
// directories and control files, a watcher's cgroup.events, the watchdog's socket) never takes 0, 1 or 2,
// where the process's next write to that stream would land.
TEST(TreeGroup, DescriptorsNeverTakeAStandardOnesPlace) {
    if (geteuid() != 0 || cgroup_places() == nullptr || cgroup_places()->unified[0] == 0)
        GTEST_SKIP() << "needs root and a writable cgroup v2 hierarchy";
    const CgroupPlaces& places = *cgroup_places();
    TreeLimits limits; // the v1 groups' cgroup.procs too, where this host has them
    if (places.memory[0] != 0) limits.memoryBytes = 64 << 20;
    if (places.pids[0] != 0) limits.processes = 100;
    ChildOutcome outcome = RunAsSubreaper([&] {
        for (int fd = 0; fd <= 2; ++fd)
            close(fd);
        TreeGroup group;
        const char* missing = nullptr;
        if (int err = make_tree_group(places, limits, &group, &missing); err != 0)
            return std::string("make_tree_group: ") + strerror(err);
        bool populated = true;
        UniqueFd watcher(watch_tree_group(group, &populated));
        std::string low;
        for (const UniqueFd* fd :
             {&group.unified, &group.events, &group.killFile, &group.joins[0], &group.joins[1],
              &group.memoryV1, &group.owners[0], &group.owners[1], &group.owners[2], &watcher})
            if (fd->get() >= 0 && fd->get() <= 2) low += " " + std::to_string(fd->get());
        uint64_t token = watchdog_register_group(group.killFile.get());
        if (token == 0) low += " registration failed";
        for (int fd = 0; fd <= 2; ++fd)
            if (fcntl(fd, F_GETFD) != -1) low += " open:" + std::to_string(fd); // the watchdog's socket
        watchdog_forget(token);
        remove_tree_group(&group);
        return low.empty() ? std::string("none") : low;
    });
    EXPECT_EQ(outcome.report, "none") << outcome.err;
}

// ---- The watchdog. Each case runs a host below a subreaper child of the test: the host registers, tells
// the PIDs it started (first line) and what it saw, and ends (or is killed); the subreaper checks what
// became of the PIDs, and kills and reaps whatever is left.

using HostBody = std::function<std::string()>;
using HostCheck =
    std::function<std::string(pid_t host, const std::vector<int>& pids, const std::string& said)>;

std::string run_host(const HostBody& body, const HostCheck& check, bool hostEndsItself) {
    int words[2];
    if (pipe2(words, O_CLOEXEC) != 0) return "pipe";
    pid_t host = fork();
    if (host == 0) {
        close(words[0]);
        std::string said = body();
        write(words[1], said.data(), said.size());
        close(words[1]);             // the subreaper reads to the end
        if (hostEndsItself) exit(0); // a normal exit, through the C library's
        pause();
        _exit(0);
    }
    close(words[1]);
    std::string said;
    char buffer[256];
    for (ssize_t n; (n = read(words[0], buffer, sizeof buffer)) > 0;)
        said.append(buffer, static_cast<size_t>(n));
    std::istringstream heard(said);
    std::string line;
    std::getline(heard, line);
    std::istringstream numbers(line);
    std::vector<int> pids;
    for (int pid; numbers >> pid;)
        pids.push_back(pid);
    std::getline(heard, line);
    std::string report = check(host, pids, line);
    kill(host, SIGKILL);
    return report;
}

std::string with_host(const HostBody& body, const HostCheck& check, bool hostEndsItself = false) {
    return RunAsSubreaper([&] { return run_host(body, check, hostEndsItself); }).report;
}

std::string pid_line(const std::vector<pid_t>& pids) {
    std::string line;
    for (pid_t pid : pids)
        line += std::to_string(pid) + " ";
    return line + "\n";
}

pid_t sleeper(const TreeGroup* group = nullptr) {
    return start({"/bin/sleep", "60"}, group);
}

// Registers the process's pidfd; the host keeps its own pidfd open.
uint64_t register_pid(pid_t pid) {
    return watchdog_register_process(open_pidfd(pid));
}

// Kills the host; `dying` must end within a second of it.
std::string kill_and_expect(pid_t host, const std::vector<int>& dying) {
    kill(host, SIGKILL);
    std::string report;
    for (int pid : dying)
        if (!EndsWithin(pid, 1000)) report += " survived:" + std::to_string(pid);
    return report.empty() ? "ok" : report;
}

// What the host said, then whether the PIDs it told end with it.
std::string said_and_ended(pid_t host, const std::vector<int>& pids, const std::string& said) {
    return said + " " + (pids.empty() ? "no process" : kill_and_expect(host, pids));
}

TEST(Watchdog, KillsRegisteredWhenTheHostIsKilled) {
    RealGroup real;
    MAKE_OR_SKIP(real);
    auto host = [&] {
        pid_t alone = sleeper(), inTree = sleeper(&real.group);
        await_populated(real.group);
        bool ok = register_pid(alone) != 0 && watchdog_register_group(real.group.killFile.get()) != 0;
        return pid_line({alone, inTree}) + (ok ? "registered" : "registration failed");
    };
    auto check = [&](pid_t host, const std::vector<int>& pids, const std::string& said) {
        return said != "registered" || pids.size() != 2 ? said : kill_and_expect(host, pids);
    };
    EXPECT_EQ(with_host(host, check), "ok");
}

TEST(Watchdog, ForgottenSurvivesAndThreadEndIsNoHostEnd) {
    auto host = [&] {
        pid_t kept = sleeper(), forgotten = sleeper(), byThread = sleeper();
        uint64_t token = register_pid(forgotten);
        watchdog_forget(token);
        watchdog_forget(token);      // twice: unknown now, ignored
        watchdog_forget(token ^ 1u); // a token that never was
        bool ok = token != 0 && register_pid(kept) != 0;
        std::thread([&] { ok = ok && register_pid(byThread) != 0; }).join();
        usleep(200000);
        // The registering thread has ended, the host has not.
        return pid_line({kept, byThread, forgotten}) + (!ok               ? "registration failed"
                                                        : lives(byThread) ? ""
                                                                          : "killed");
    };
    // The host exits by itself: its end is an exit, not a kill.
    auto check = [&](pid_t, const std::vector<int>& pids, const std::string& said) {
        if (!said.empty() || pids.size() != 3) return said;
        std::string report;
        for (int pid : {pids[0], pids[1]})
            if (!EndsWithin(pid, 1000)) report += " survived:" + std::to_string(pid);
        usleep(100000);
        if (!lives(pids[2])) report += " forgotten was killed";
        return report.empty() ? std::string("ok") : report;
    };
    EXPECT_EQ(with_host(host, check, true), "ok");
}

// The watchdog of this process: the quillon-watch process that shares its memory.
pid_t own_watchdog() {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        int pid = std::stoi(name);
        if (ReadFile("/proc/" + name + "/comm") == "quillon-watch\n" &&
            syscall(SYS_kcmp, getpid(), pid, 1 /* KCMP_VM */, 0, 0) == 0)
            return pid;
    }
    return 0;
}

// The watchdog names itself once it has let go of the host's descriptors, a moment after the registration:
// waits up to a second for one other than `old`.
pid_t await_own_watchdog(pid_t old = 0) {
    for (int i = 0; i < 100; ++i) {
        pid_t found = own_watchdog();
        if (found != 0 && found != old) return found;
        usleep(10000);
    }
    return 0;
}

size_t descriptors_of(pid_t pid) {
    fs::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<size_t>(std::distance(fds, fs::directory_iterator()));
}

TEST(Watchdog, IsDetachedDeafAndReplacedWhenKilled) {
    if (syscall(SYS_kcmp, getpid(), getpid(), 1, 0, 0) != 0) GTEST_SKIP() << "no kcmp to find the watchdog";
    auto host = [&] {
        pid_t first = sleeper(), second = sleeper();
        std::ostringstream said;
        said << pid_line({second, first});
        UniqueFd unrelated(open("/dev/null", O_RDONLY)); // not close-on-exec
        pid_t watchdog = register_pid(first) != 0 ? await_own_watchdog() : 0;
        if (watchdog == 0) return said.str() + "no watchdog found";
        std::string status = ReadFile("/proc/" + std::to_string(watchdog) + "/stat");
        std::istringstream fields(status.substr(status.rfind(')') + 2));
        char state;
        int parent, group, session;
        fields >> state >> parent >> group >> session;
        size_t descriptors = 0; // its socket and the registration, once that has arrived
        for (int i = 0; i < 100 && (descriptors = descriptors_of(watchdog)) != 2; ++i)
            usleep(10000);
        for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGPIPE, SIGALRM})
            kill(watchdog, signal);
        usleep(100000);
        said << "parentIsHost=" << (parent == getpid()) << " ownSession=" << (session == watchdog)
             << " descriptors=" << descriptors << " deaf=" << lives(watchdog);
        kill(watchdog, SIGKILL);
        EndsWithin(watchdog, 1000);
        said << " replaced=" << (register_pid(second) != 0 && await_own_watchdog(watchdog) != 0);
        return said.str();
    };
    // The first was registered with the killed watchdog: lost, as documented.
    auto check = [&](pid_t host, const std::vector<int>& pids, const std::string& said) {
        return pids.empty() ? said : said + " " + kill_and_expect(host, {pids[0]});
    };
    EXPECT_EQ(with_host(host, check), "parentIsHost=0 ownSession=1 descriptors=2 deaf=1 replaced=1 ok");
}

TEST(Watchdog, HoldsOneRegistrationPerDescriptorItMayOpen) {
    constexpr rlim_t kLimit = 40;
    auto host = [&] {
        rlimit limit = {kLimit, kLimit};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("\nsetrlimit");
        pid_t filler = sleeper(), last = sleeper();
        int fillerFd = open_pidfd(filler), lastFd = open_pidfd(last);
        std::vector<uint64_t> tokens;
        for (uint64_t token;
             tokens.size() < 2 * kLimit && (token = watchdog_register_process(fillerFd)) != 0;)
            tokens.push_back(token);
        int err = errno;
        watchdog_forget(tokens.back());
        bool again = watchdog_register_process(lastFd) != 0;
        bool full = watchdog_register_process(lastFd) == 0 && errno == ENOSPC;
        return pid_line({filler, last}) + std::to_string(tokens.size()) + " " + strerror(err) +
               " again=" + std::to_string(again) + " full=" + std::to_string(full);
    };
    // The registration that took the forgotten one's place is held too; the watchdog's socket takes one of
    // the descriptors the limit allows.
    EXPECT_EQ(with_host(host, said_and_ended),
              std::to_string(kLimit - 1) + " " + strerror(ENOSPC) + " again=1 full=1 ok");
}
// How the watchdog is made when the host's setup differs: with SIGCHLD ignored (its intermediate process's
// status can't be collected), and when the intermediate's clone fails.
struct MakingCase {
    const char* name;
    std::function<void()> before; // in the host, before the first registration
    bool firstFails;              // the first registration fails with EAGAIN, the next one succeeds
};

class WatchdogMaking : public testing::TestWithParam<MakingCase> {};

TEST_P(WatchdogMaking, KillsWhatWasRegisteredAtTheHostsEnd) {
    const MakingCase& c = GetParam();
    auto host = [&] {
        pid_t registered = sleeper();
        c.before();
        std::string said;
        if (c.firstFails) {
            bool failed = register_pid(registered) == 0 && errno == EAGAIN;
            seams::clone = {};
            said += failed ? "failed " : "made ";
        }
        bool ok = register_pid(registered) != 0;
        int err = errno;
        return pid_line({registered}) + said + (ok ? "registered" : std::string("failed: ") + strerror(err));
    };
    EXPECT_EQ(with_host(host, said_and_ended), std::string(c.firstFails ? "failed " : "") + "registered ok");
}

INSTANTIATE_TEST_SUITE_P(Watchdog, WatchdogMaking,
                         testing::Values(MakingCase{"sigchldIgnored", [] { signal(SIGCHLD, SIG_IGN); },
                                                    false},
                                         // The second clone is the intermediate's, of the watchdog itself.
                                         MakingCase{"intermediateCloneFails",
                                                    [] {
                                                        seams::clone = {2, EAGAIN};
                                                    },
                                                    true},
                                         MakingCase{"intermediateCloneFailsSigchldIgnored",
                                                    [] {
                                                        signal(SIGCHLD, SIG_IGN);
                                                        seams::clone = {2, EAGAIN};
                                                    },
                                                    true}),
                         CaseName());

// A forget is made when a process or tree has ended, under the event thread's lock: it never waits, not for
// a stopped watchdog's full queue, not for a registration that holds the host's state while it waits for
// room. A registration still waits its bounded time and fails with EAGAIN.
TEST(Watchdog, ForgetsNeverWaitForAStoppedWatchdog) {
    if (syscall(SYS_kcmp, getpid(), getpid(), 1, 0, 0) != 0) GTEST_SKIP() << "no kcmp to find the watchdog";
    auto host = [&] {
        pid_t kept = sleeper();
        int pidfd = open_pidfd(kept);
        uint64_t first = watchdog_register_process(pidfd);
        pid_t watchdog = first != 0 ? await_own_watchdog() : 0;
        if (watchdog == 0) return pid_line({kept}) + "no watchdog";
        kill(watchdog, SIGSTOP);
        std::mutex guard;
        std::vector<uint64_t> tokens;
        int refused = 0;
        std::thread filler([&] { // registers until the queue is full, then waits for room in vain
            for (uint64_t token; (token = watchdog_register_process(pidfd)) != 0;) {
                std::lock_guard<std::mutex> hold(guard);
                tokens.push_back(token);
            }
            refused = errno;
        });
        auto count = [&] {
            std::lock_guard<std::mutex> hold(guard);
            return tokens.size();
        };
        for (size_t before = 0, now; (now = count()) == 0 || now != before; before = now) // until it waits
            usleep(200000);
        std::vector<uint64_t> forgotten;
        {
            std::lock_guard<std::mutex> hold(guard);
            forgotten = tokens;
        }
        forgotten.push_back(first);
        auto began = std::chrono::steady_clock::now();
        for (uint64_t token : forgotten)
            watchdog_forget(token);
        auto took = std::chrono::steady_clock::now() - began;
        filler.join();
        kill(watchdog, SIGCONT);
        bool again = watchdog_register_process(pidfd) != 0;
        return pid_line({kept}) + "forgot " + std::to_string(forgotten.size() > 10) + " at once " +
               std::to_string(took < std::chrono::seconds(1)) + ", then " + strerror(refused) + ", again " +
               std::to_string(again);
    };
    EXPECT_EQ(with_host(host, said_and_ended),
              "forgot 1 at once 1, then " + std::string(strerror(EAGAIN)) + ", again 1 ok");
}
} // namespace
