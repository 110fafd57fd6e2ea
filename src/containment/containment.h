// Contained trees: a launched program and everything it starts live in cgroups of their own, so that the
// whole tree can be killed at once (also after its root ended, also members that left the session or
// double-forked), its emptiness is seen without polling, and it can carry a memory and a process-count
// limit. And the watchdog, which kills registered trees and processes when this process ends.
#pragma once

#include <climits>
#include <cstdint>
#include <pthread.h>

#include "runtime/support.h"

// A descriptor moved above the standard ones (0-2), close-on-exec: a library's descriptor there would take
// the place of a stream the JVM closed, and the JVM's next write to it would land in a control file. The
// descriptor, or -1 with errno (the given one is closed either way).
int move_above_standard(int fd);

// This process's own groups, below which the groups of contained trees are made.
struct CgroupPlaces {
    char unified[PATH_MAX]; // this process's group in the v2 hierarchy, "" when none is mounted or it isn't
                            // writable
    char memory[PATH_MAX];  // this process's group in the hierarchy that carries the memory controller, "" if
                            // none: the v2 group when "memory" is in its cgroup.subtree_control, else a v1
                            // hierarchy
    bool memoryUnified;
    char pids[PATH_MAX]; // the same for the pids controller
    bool pidsUnified;
};
// Finds them from the two files (the defaults are this process's; tests pass files of their own): 0 or an
// errno. A v1 place is taken as found; whether it can be written shows when a group is made there.
int find_cgroup_places(CgroupPlaces* places, const char* mountinfo = "/proc/self/mountinfo",
                       const char* cgroup = "/proc/self/cgroup");
// The places of this process, found once (thread-safe), or null when they can't be read.
const CgroupPlaces* cgroup_places();

struct TreeLimits {
    int64_t memoryBytes = -1; // -1: none
    int64_t processes = -1;   // -1: none
};

// The groups of one contained tree: the same name ("quillon-<this process's pid>-<counter>") below this
// process's own group in the v2 hierarchy and, when a limit asks for them, in the v1 hierarchies of the
// memory and pids controllers. Destroying it closes descriptors and removes nothing.
struct TreeGroup : NoCopy {
    char name[64] = {};
    UniqueFd unified;  // O_DIRECTORY|O_CLOEXEC of the v2 group, for CLONE_INTO_CGROUP; -1 without one
    UniqueFd events;   // its cgroup.events (O_RDONLY|O_CLOEXEC), read for its state; never polled, see
                       // watch_tree_group
    UniqueFd killFile; // its cgroup.kill (O_WRONLY|O_CLOEXEC); -1 also on kernels before 5.14
    UniqueFd
        joins[2]; // cgroup.procs (O_WRONLY|O_CLOEXEC) of v1 groups the new process joins itself; -1 unused
    UniqueFd
        memoryV1; // the v1 memory group's directory, for its statistics; -1 when the memory is counted in v2
    // This process's own group in each hierarchy where a group was made (v2, v1 memory, v1 pids), so that
    // the group is removed by name; -1 where none was made or it is removed already.
    UniqueFd owners[3];
    // Held by a signal from freeze to thaw: a second signal must not thaw the group under the first.
    mutable pthread_mutex_t freezing = PTHREAD_MUTEX_INITIALIZER;
};

// Makes the groups and sets the limits (memory: memory.max, and memory.swap.max 0 where it exists, in v2;
// memory.limit_in_bytes in v1 plus memory.memsw.limit_in_bytes where it exists; processes: pids.max).
// A limit whose controller no hierarchy carries fails with ENODEV and *missing = "memory" or "pids": a
// limit is never silently dropped. Without a v2 place only v1 groups are made (unified, events and
// killFile stay -1): the caller then contains the tree by a process group. Any failure removes what was
// made. 0 or an errno (EINVAL for a limit below -1).
int make_tree_group(const CgroupPlaces& places, const TreeLimits& limits, TreeGroup* group,
                    const char** missing);
// Kills every member at once (v2 cgroup.kill). Without it: ENOTSUP. 0 or an errno.
int kill_tree_group(const TreeGroup& group);
// Sends `signal` to every member, with the v2 group frozen meanwhile (cgroup.freeze, waiting for "frozen 1"
// in cgroup.events) so that no member forks a process that misses it; thawed afterwards. 0 or an errno:
// ENOTSUP without a v2 group, ETIMEDOUT when the group didn't freeze in time (the signal was sent anyway).
int signal_tree_group(const TreeGroup& group, int signal);
// Whether any process is left, in the group or a group below it, from cgroup.events ("populated 0/1").
// 0 or an errno (ENOTSUP without v2).
int tree_group_populated(const TreeGroup& group, bool* populated);
// A descriptor of cgroup.events of the caller's own, to poll for POLLPRI: the kernel keeps, per open file,
// which change was read last, so a read through another open file (or a dup of one) can't swallow the
// notification. It is read once here, so it wakes for a change after this call; *populated is what that
// read said. -1 with errno (ENOTSUP without v2).
int watch_tree_group(const TreeGroup& group, bool* populated);
// A process of the v2 group, the first listed in its cgroup.procs or, when none, in a group below it
// that a member made: its PID, 0 when none is found (or there is no v2 group).
int tree_group_member(const TreeGroup& group);
struct TreeUsage {
    bool killedForMemory; // an OOM kill happened in the group (v2 memory.events "oom_kill", v1
                          // memory.oom_control)
    int64_t peakBytes; // the group's peak memory (v2 memory.peak, v1 memory.max_usage_in_bytes); -1 unknown
};
TreeUsage tree_group_usage(const TreeGroup& group);
// Removes the directories, with the groups that members made below them (deepest first, a bounded number),
// once no process is left in any of them: each one that can go goes, and the call may be repeated for the
// rest. 0, or the first errno met (EBUSY while a member lives).
int remove_tree_group(TreeGroup* group);
// Removes groups named "quillon-<pid>-<n>" below this process's own whose <pid> no longer runs, with their
// sub-groups: leftovers of a process that died. A group that still holds a process, itself or below it, is
// left whole.
void remove_stale_groups(const CgroupPlaces& places);

// The watchdog: one process per host process, made at the first registration, that kills what was
// registered when the host ends, by exit, crash or SIGKILL (and not when the registering thread ends).
// It holds at most min(65536, the host's hard RLIMIT_NOFILE at its start - 1) registrations at a time;
// beyond that a registration fails with ENOSPC.
//
// Registers, to be killed when this process ends: a tree group's cgroup.kill descriptor, or a process's
// pidfd. The descriptor is duplicated into the watchdog; the caller keeps its own. A token, or 0 with
// errno set.
uint64_t watchdog_register_group(int killFd);
uint64_t watchdog_register_process(int pidfd);
// Takes a registration back (the tree or process has ended). Unknown tokens are ignored. It never waits:
// not for a stopped watchdog's full queue, not for a registration in progress (see watchdog.cpp).
void watchdog_forget(uint64_t token);
