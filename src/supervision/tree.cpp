// Killing a whole tree of processes: the root and everything below it are stopped first, so that none
// of them can fork while the tree is read from /proc, and then killed together.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "quillon/result_codes.h"
#include "runtime/support.h"
#include "supervision/supervision_internal.h"
#include "supervision/tree.h"

namespace {
constexpr int kMaxRounds = 16;

struct Pids {
    int* pids = nullptr;
    size_t count = 0;
    size_t capacity = 0;
    ~Pids() { free(pids); }
    bool contains(int pid) const {
        for (size_t i = 0; i < count; ++i)
            if (pids[i] == pid) return true;
        return false;
    }
    bool add(int pid) {
        if (count == capacity) {
            size_t bigger = capacity == 0 ? 64 : capacity * 2;
            auto* grown = static_cast<int*>(malloc(bigger * sizeof(int)));
            if (grown == nullptr) return false;
            if (count > 0) memcpy(grown, pids, count * sizeof(int));
            free(pids);
            pids = grown;
            capacity = bigger;
        }
        pids[count++] = pid;
        return true;
    }
};

// What /proc/<pid>/stat says after the command name.
struct Stat {
    char state;
    int parent;
    int group;
};
// 0; ESRCH when the process is gone; else the errno that kept it from being read (EMFILE, ENOMEM...): then
// nothing can be told of the process. Read without the C library's streams, which allocate.
int read_stat(int pid, Stat* stat) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    UniqueFd file(retry_on_eintr([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
    if (file.get() < 0) return errno == ENOENT || errno == ESRCH ? ESRCH : errno;
    char line[1024];
    ssize_t length = retry_on_eintr([&] { return read(file.get(), line, sizeof line - 1); });
    if (length < 0) return errno == ESRCH ? ESRCH : errno;
    line[length] = 0;
    const char* afterName = strrchr(line, ')'); // the command name may hold anything, ')' too
    bool parsed = afterName != nullptr &&
                  sscanf(afterName + 1, " %c %d %d", &stat->state, &stat->parent, &stat->group) == 3;
    return parsed ? 0 : ESRCH; // empty: it ended as it was read
}

// Whether the entry's process has ended (a zombie, or gone): its pidfd tells it for this very process, the
// PID only while the process holds it.
bool has_ended(ProcessEntry* entry, int pid) {
    if (entry_pidfd(entry) >= 0) {
        pollfd ended = {entry_pidfd(entry), POLLIN, 0};
        return retry_on_eintr([&] { return poll(&ended, 1, 0); }) == 1;
    }
    Stat stat;
    int err = read_stat(pid, &stat);
    return err == ESRCH || (err == 0 && stat.state == 'Z');
}

// Whether a kill of the tree of `root` would reach the calling process: root is the caller or one of its
// ancestors, or leads the caller's process group. 0, or the errno that kept it from being told.
int holds_caller(int root, bool* holds) {
    *holds = true;
    if (getpgrp() == root) return 0;
    for (int pid = getpid(); pid > 1;) {
        if (pid == root) return 0;
        Stat stat;
        int err = read_stat(pid, &stat);
        if (err == ESRCH) break; // an ancestor that ended: the line above it is init's
        if (err != 0) return err;
        pid = stat.parent;
    }
    *holds = root == 1;
    return 0;
}

// The next entry of a listing of /proc: true with its PID (0 for what is no process), false at the end.
// *err is the errno of a listing that failed.
bool next_pid(DIR* proc, int* pid, int* err) {
    errno = 0;
    dirent* entry = readdir(proc);
    if (entry == nullptr) {
        *err = errno;
        return false;
    }
    *pid = atoi(entry->d_name);
    return true;
}

// Adds every process below `root` that is not in `known` yet: 0, or the errno that kept the tree from
// being read whole (what was found until then is in `known`).
int find_descendants(int root, Pids& known, bool* grew) {
    *grew = false;
    Pids all, parents;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return errno;
    int err = 0;
    for (int pid; err == 0 && next_pid(proc, &pid, &err);) {
        Stat stat;
        int statErr = pid > 0 ? read_stat(pid, &stat) : ESRCH;
        if (statErr != 0 && statErr != ESRCH) err = statErr;
        if (statErr == 0 && (!all.add(pid) || !parents.add(stat.parent))) err = ENOMEM;
    }
    closedir(proc);
    bool added = true;
    while (added) { // a process belongs to the tree when its parent does
        added = false;
        for (size_t i = 0; i < all.count; ++i) {
            if (all.pids[i] == root || known.contains(all.pids[i])) continue;
            if (parents.pids[i] != root && !known.contains(parents.pids[i])) continue;
            if (!known.add(all.pids[i])) return ENOMEM;
            added = *grew = true;
        }
    }
    return err;
}

// Stops what /proc shows below the stopped root, round by round until no new process shows: 0 or the errno
// that cut the search short. Every process found, stopped, is in `tree`.
int stop_descendants(int root, Pids& tree) {
    for (int round = 0; round < kMaxRounds; ++round) {
        bool grew = false;
        size_t before = tree.count;
        int err = find_descendants(root, tree, &grew);
        for (size_t i = before; i < tree.count; ++i)
            kill(tree.pids[i], SIGSTOP);
        if (err != 0) return err;
        if (!grew) break;
    }
    return 0;
}
} // namespace

int kill_tree(UnixProcessData* data, int* sysErr) {
    TraceScope trace("killTree()");
    int root = record_pid(data);
    *sysErr = 0;
    int result = ensure_entry(data, sysErr);
    if (result != PROC_SUCCESS) return result;
    bool holds = true;
    if (int err = holds_caller(root, &holds); err != 0) { // nothing stopped: nothing is left stopped
        *sysErr = err;
        process_log("Can't tell whether the tree of process [%d] holds this process: nothing sent\n", root);
        return result_for_errno(err, {}, PROC_SYSTEM_ERR);
    }
    if (holds) { // stopping it would stop the caller for good
        *sysErr = EDEADLK;
        process_log("The tree of process [%d] holds this process: nothing sent\n", root);
        return PROC_SYSTEM_ERR;
    }
    bool leader = !entry_ended(entry_of(data)) && getpgid(root) == root;
    // A root that has ended has no tree to find: its PID may name another process, whose children are
    // none of ours.
    int err = signal_process(entry_of(data), root, SIGSTOP);
    if (err == ESRCH) return PROC_SUCCESS;
    if (err != 0) {
        *sysErr = err;
        return err == EPERM ? PROC_ACCESS_DENIED : PROC_SYSTEM_ERR;
    }
    // A stopped root can't end while it is searched. One that had ended already (a zombie takes the signal)
    // has passed its children on, and may be collected and its PID given to another process meanwhile: only
    // what is left of the group it led is told apart still (a group's ID is not given out while it has
    // members).
    if (has_ended(entry_of(data), root)) {
        if (leader) kill(-root, SIGKILL);
        return PROC_SUCCESS;
    }
    if (leader) kill(-root, SIGSTOP);
    Pids tree;
    // A search cut short still kills what it stopped: nothing is left stopped for good.
    err = stop_descendants(root, tree);
    if (leader) kill(-root, SIGKILL);
    signal_process(entry_of(data), root, SIGKILL);
    for (size_t i = 0; i < tree.count; ++i)
        kill(tree.pids[i], SIGKILL);
    process_log("Killed process [%d] and %d processes below it\n", root, static_cast<int>(tree.count));
    if (err == 0) return PROC_SUCCESS;
    *sysErr = err;
    process_log("The processes below [%d] could not all be found: errno %d\n", root, err);
    return result_for_errno(err, {}, PROC_SYSTEM_ERR);
}

namespace {
// One pass over /proc for a live member of the group: its PID, 0 when there is none, or -errno when the
// pass could not look at every process.
int scan_for_member(int group) {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return -errno;
    int member = 0, err = 0;
    for (int pid; member == 0 && next_pid(proc, &pid, &err);) {
        Stat stat;
        int statErr = pid > 0 ? read_stat(pid, &stat) : ESRCH;
        if (statErr == 0 && stat.group == group && stat.state != 'Z') member = pid;
        if (statErr != 0 && statErr != ESRCH) err = statErr; // that one may be a member: can't tell
    }
    closedir(proc);
    return member != 0 ? member : -err;
}
} // namespace

int live_member_of(int group) {
    // A pass over /proc can miss a process in the middle of its exec; the kernel's own list of the group,
    // which kill walks, can't, but counts zombies too. So a pass that finds nobody while the group still
    // has a process is made again, a few times, before the group counts as holding zombies alone.
    for (int pass = 0;; ++pass) {
        int member = scan_for_member(group);
        if (member != 0 || kill(-group, 0) != 0 || pass == 3) return member;
        timespec nap = {0, 1000000};
        nanosleep(&nap, nullptr);
    }
}

bool in_process_group(int pid, int group) {
    Stat stat;
    return read_stat(pid, &stat) == 0 && stat.group == group && stat.state != 'Z';
}

int signal_process_group(int group, int signal) {
    if (live_member_of(group) == 0) return 0; // zombies alone, or nobody: its number may name another group
    return kill(-group, signal) == 0 || errno == ESRCH ? 0 : errno;
}

bool kill_process_group(int group) {
    return live_member_of(group) != 0 && kill(-group, SIGKILL) == 0;
}
