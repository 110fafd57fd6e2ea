// Contained trees: a launched program and everything it starts, held together by a cgroup (where a
// writable cgroup v2 hierarchy exists) or else by the process group the program leads. A tree is named by a
// token for good; once it is empty its groups are removed and only its figures stay.
#pragma once

#include <cstdint>

#include "containment/containment.h"

struct Tree;

// A tree for a launch, its groups made below `places` (this process's own; null when they can't be read):
// null with *err (and *missing naming a controller for ENODEV) when they can't be. Without a v2 place the
// tree is a process group.
Tree* new_tree(const TreeLimits& limits, int* err, const char** missing,
               const CgroupPlaces* places = cgroup_places());
// What the launch needs of it: the v2 group to start in (-1 for a process-group tree), the cgroup.procs files
// the new process joins itself (three, -1 unused), the cgroup.kill for the watchdog (-1 without).
int tree_start_group(const Tree* tree);
void tree_joins(const Tree* tree, int joins[3]);
int tree_kill_file(const Tree* tree);
// The launch succeeded: the root (which leads the process group of a process-group tree) and the watchdog's
// registration of the tree, taken back once it is empty. Its token, 0 when memory ran out (then the tree
// is discarded).
int64_t register_tree(Tree* tree, int rootPid, uint64_t watchdogToken);
// A launch that failed: its groups are removed and the tree freed.
void discard_tree(Tree* tree);

enum class TreeKind { None = 0, Cgroup = 1, ProcessGroup = 2 };
TreeKind tree_kind(int64_t token);
// SIGKILL to every member at once: 0 or an errno (ESRCH: an unknown token; an empty tree is no error).
int tree_kill(int64_t token);
// A signal to every member: 0 or an errno.
int tree_signal(int64_t token, int signal);
// Whether the tree is empty now (looked at, not waited for), with its figures (final once the event set has
// settled it: see watch_tree). A tree whose members can't be told now (no descriptor left to read /proc)
// counts as not empty.
bool tree_empty(int64_t token, TreeUsage* usage);
// The caller no longer follows the tree: it is freed now if empty, else once it is (its watch goes on).
void release_tree(int64_t token);

// ---- For the event set ----
// A descriptor of the caller's own (close-on-exec, above 2) that wakes when the tree may have emptied: an
// open file of its cgroup.events of its own (POLLPRI; no other reader can take its notification), or the
// pidfd of one member of a process-group tree. -1 when the tree is empty (then settled), or unknown;
// kLookLater when no such descriptor can be had now, or the members can't be told (EMFILE and the like):
// the caller looks again a little later.
constexpr int kLookLater = -2;
int tree_waker(int64_t token, bool* priority);
// A live member of a cgroup tree, the first its cgroup.procs (or a group below it) lists: 0 when none (or
// another kind of tree).
int tree_member(int64_t token);
// Looks after a wake: true once the tree is empty (its groups then removed); *released when nobody follows
// it any more, and it is freed.
bool tree_settle(int64_t token, bool* released);
