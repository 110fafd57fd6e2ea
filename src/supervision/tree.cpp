// Killing a whole tree of processes: the root and everything below it are stopped first, so that none
// of them can fork while the tree is read from /proc, and then killed together.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
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
            auto* grown = static_cast<int*>(realloc(pids, bigger * sizeof(int)));
            if (grown == nullptr) return false;
            pids = grown;
            capacity = bigger;
        }
        pids[count++] = pid;
        return true;
    }
};

// What /proc/<pid>/stat says after the command name; false when it can't be read (the process is gone).
struct Stat {
    char state;
    int parent;
    int group;
};
bool read_stat(int pid, Stat* stat) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE* file = fopen(path, "re");
    if (file == nullptr) return false;
    char line[1024];
    bool read = false;
    if (fgets(line, sizeof line, file) != nullptr) {
        const char* afterName = strrchr(line, ')'); // the command name may hold anything, ')' too
        read = afterName != nullptr && sscanf(afterName + 1, " %c %d %d", &stat->state, &stat->parent, &stat->group) == 3;
    }
    fclose(file);
    return read;
}

// The parent of a process; 0 when it can't be read.
int parent_of(int pid) {
    Stat stat;
    return read_stat(pid, &stat) ? stat.parent : 0;
}

// Whether a kill of the tree of `root` would reach the calling process: root is the caller or one of its
// ancestors, or leads the caller's process group.
bool holds_caller(int root) {
    if (getpgrp() == root) return true;
    for (int pid = getpid(); pid > 0; pid = parent_of(pid))
        if (pid == root) return true;
    return false;
}

// Adds every process below `root` that is not in `known` yet. False when memory ran out.
bool find_descendants(int root, Pids& known, bool* grew) {
    Pids all, parents;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return true;
    while (dirent* entry = readdir(proc)) {
        int pid = atoi(entry->d_name);
        if (pid <= 0) continue;
        if (!all.add(pid) || !parents.add(parent_of(pid))) {
            closedir(proc);
            return false;
        }
    }
    closedir(proc);
    *grew = false;
    bool added = true;
    while (added) { // a process belongs to the tree when its parent does
        added = false;
        for (size_t i = 0; i < all.count; ++i) {
            if (all.pids[i] == root || known.contains(all.pids[i])) continue;
            if (parents.pids[i] != root && !known.contains(parents.pids[i])) continue;
            if (!known.add(all.pids[i])) return false;
            added = *grew = true;
        }
    }
    return true;
}
} // namespace

int kill_tree(UnixProcessData* data, int* sysErr) {
    TraceScope trace("killTree()");
    int root = record_pid(data);
    *sysErr = 0;
    int result = ensure_entry(data, sysErr);
    if (result != PROC_SUCCESS) return result;
    if (holds_caller(root)) { // stopping it would stop the caller for good
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
    if (leader) kill(-root, SIGSTOP);
    Pids tree;
    for (int round = 0; round < kMaxRounds; ++round) {
        bool grew = false;
        size_t before = tree.count;
        if (!find_descendants(root, tree, &grew)) {
            *sysErr = ENOMEM;
            return PROC_OUT_OF_MEMORY;
        }
        for (size_t i = before; i < tree.count; ++i)
            kill(tree.pids[i], SIGSTOP);
        if (!grew) break;
    }
    if (leader) kill(-root, SIGKILL);
    signal_process(entry_of(data), root, SIGKILL);
    for (size_t i = 0; i < tree.count; ++i)
        kill(tree.pids[i], SIGKILL);
    process_log("Killed process [%d] and %d processes below it\n", root, static_cast<int>(tree.count));
    return PROC_SUCCESS;
}

namespace {
// One pass over /proc for a live member of the group: its PID, or 0.
int scan_for_member(int group) {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return 0;
    int member = 0;
    while (dirent* entry = readdir(proc)) {
        int pid = atoi(entry->d_name);
        Stat stat;
        if (pid > 0 && read_stat(pid, &stat) && stat.group == group && stat.state != 'Z') {
            member = pid;
            break;
        }
    }
    closedir(proc);
    return member;
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
    return read_stat(pid, &stat) && stat.group == group && stat.state != 'Z';
}

bool signal_process_group(int group, int signal) {
    return live_member_of(group) != 0 && kill(-group, signal) == 0;
}

bool kill_process_group(int group) {
    return signal_process_group(group, SIGKILL);
}
