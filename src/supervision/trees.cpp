#include "supervision/trees.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "runtime/pidfd.h"
#include "supervision/id_table.h"
#include "supervision/tree.h"

struct Tree {
    TreeGroup group; // cgroup trees: the v2 group (and v1 groups for limits); else v1 groups alone
    TreeKind kind = TreeKind::ProcessGroup;
    int root = 0; // the root's PID, which numbers the process group of a process-group tree
    uint64_t watchdogToken = 0;
    bool empty = false;      // seen empty: the groups are removed (or due to be), the figures final
    bool removalDue = false; // empty, its groups to be removed by the last call in progress
    bool released = false;   // nobody follows it any more
    unsigned users = 0;      // calls in progress, under the lock
    TreeUsage usage = {false, -1};
};

namespace {
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
IdTable trees;
std::atomic<bool> stale_removed{false};

void free_tree(Tree* tree) {
    tree->~Tree();
    free(tree);
}

// The tree of a token, kept while the reference lasts; null for any other number.
class TreeRef : NoCopy {
  public:
    explicit TreeRef(int64_t token) {
        pthread_mutex_lock(&lock);
        tree_ = static_cast<Tree*>(trees.find(static_cast<uint64_t>(token)));
        if (tree_ != nullptr) ++tree_->users;
        pthread_mutex_unlock(&lock);
        token_ = token;
    }
    ~TreeRef() {
        if (tree_ == nullptr) return;
        pthread_mutex_lock(&lock);
        if (tree_->users == 1 && tree_->removalDue) { // the last call that might use the groups: they go
            tree_->removalDue = false;
            pthread_mutex_unlock(&lock);
            remove_tree_group(
                &tree_->group); // a leftover that can't go now is taken by the next process's sweep
            pthread_mutex_lock(&lock);
        }
        bool last = --tree_->users == 0 && tree_->released && tree_->empty;
        if (last) trees.erase(static_cast<uint64_t>(token_));
        pthread_mutex_unlock(&lock);
        if (last) free_tree(tree_);
    }
    Tree* get() const { return tree_; }
    Tree* operator->() const { return tree_; }
    explicit operator bool() const { return tree_ != nullptr; }

  private:
    Tree* tree_;
    int64_t token_;
};

// Whether the tree has been settled: empty, its groups removed or being removed, its figures final.
bool ended(Tree* tree) {
    pthread_mutex_lock(&lock);
    bool empty = tree->empty;
    pthread_mutex_unlock(&lock);
    return empty;
}

// Whether a member may live: what can't be told (a /proc that can't be read, a cgroup.events that can't)
// counts as a member.
bool lives(Tree* tree) {
    if (ended(tree)) return false;
    if (tree->kind == TreeKind::ProcessGroup) return live_member_of(tree->root) != 0;
    bool populated = true;
    return tree_group_populated(tree->group, &populated) != 0 || populated;
}

// Looks whether the tree is empty; the first time it is, its figures are taken and its groups removed. Only
// the event set's thread settles a tree, so that its watch of the groups is never left behind them. A kill,
// signal or look that is in progress keeps the groups until it ends (the last call removes them): a time
// limit's kill that races the program's exit acts on an empty group, not on a removed one. Calls that come
// later see the tree ended and leave the groups alone. The caller holds one reference.
bool settle(Tree* tree) {
    if (ended(tree)) return true;
    if (lives(tree)) return false;
    TreeUsage usage = tree_group_usage(tree->group);
    pthread_mutex_lock(&lock);
    bool first = !tree->empty;
    tree->empty = true;
    if (first) tree->usage = usage;
    bool removeNow = first && tree->users == 1;
    if (first && !removeNow) tree->removalDue = true;
    pthread_mutex_unlock(&lock);
    if (!first) return true;
    if (removeNow) remove_tree_group(&tree->group); // a leftover that can't go now: the next process's sweep
    if (tree->watchdogToken != 0) watchdog_forget(tree->watchdogToken);
    return true;
}

// The outcome of a kill or signal: its groups gone (ENOENT, ENODEV) because the tree ended meanwhile is no
// failure (they are kept while a call is in progress, but a removal from outside is no failure either).
int unless_ended(Tree* tree, int err) {
    return (err == ENOENT || err == ENODEV) && ended(tree) ? 0 : err;
}

// A descriptor of the caller's own that wakes when the tree may have emptied, or -1 when it is empty (then
// settled), or kLookLater.
int cgroup_waker(Tree* tree) {
    bool populated = true;
    int fd = watch_tree_group(tree->group, &populated); // read once, after which a change wakes it
    if (fd >= 0 && populated) return fd;
    if (fd >= 0) close(fd);
    return settle(tree) ? -1 : kLookLater; // EMFILE and the like: looked at again later
}

int process_group_waker(Tree* tree) {
    // A member at a time: when the one watched ends, another is looked for, until none is left.
    for (int attempt = 0; attempt < 100; ++attempt) {
        int member = live_member_of(tree->root);
        if (member < 0) return kLookLater; // /proc can't be read whole now
        if (member == 0) break;
        UniqueFd pidfd(move_above_standard(quillon_pidfd_open(member)));
        if (pidfd.get() >= 0 && in_process_group(member, tree->root)) return pidfd.release();
        if (pidfd.get() < 0 && errno != ESRCH) return settle(tree) ? -1 : kLookLater; // no pidfd to be had
    }
    return settle(tree) ? -1 : kLookLater;
}
} // namespace

Tree* new_tree(const TreeLimits& limits, int* err, const char** missing, const CgroupPlaces* places) {
    void* block = calloc(1, sizeof(Tree));
    if (block == nullptr) {
        *err = ENOMEM;
        return nullptr;
    }
    auto* tree = new (block) Tree{};
    bool limited = limits.memoryBytes >= 0 || limits.processes >= 0;
    *err = 0;
    if (places == nullptr && limited) {
        *err = ENODEV;
        *missing = limits.memoryBytes >= 0 ? "memory" : "pids";
    } else if (places != nullptr && (places->unified[0] != 0 || limited)) {
        if (!stale_removed.exchange(true)) remove_stale_groups(*places);
        *err = make_tree_group(*places, limits, &tree->group, missing);
    }
    if (*err != 0) {
        free_tree(tree);
        return nullptr;
    }
    tree->kind = tree->group.unified.get() >= 0 ? TreeKind::Cgroup : TreeKind::ProcessGroup;
    return tree;
}

int tree_start_group(const Tree* tree) {
    return tree->group.unified.get();
}

void tree_joins(const Tree* tree, int joins[3]) {
    joins[0] = tree->group.joins[0].get();
    joins[1] = tree->group.joins[1].get();
    joins[2] = -1;
}

int tree_kill_file(const Tree* tree) {
    return tree->group.killFile.get();
}

int64_t register_tree(Tree* tree, int rootPid, uint64_t watchdogToken) {
    tree->root = rootPid;
    tree->watchdogToken = watchdogToken;
    uint64_t token = unique_handle();
    pthread_mutex_lock(&lock);
    bool kept = trees.insert(token, tree);
    pthread_mutex_unlock(&lock);
    return kept ? static_cast<int64_t>(token) : 0;
}

void discard_tree(Tree* tree) {
    remove_tree_group(&tree->group);
    free_tree(tree);
}

TreeKind tree_kind(int64_t token) {
    TreeRef tree(token);
    return tree ? tree->kind : TreeKind::None;
}

int tree_kill(int64_t token) {
    TreeRef tree(token);
    if (!tree) return ESRCH;
    if (!lives(tree.get())) return 0;
    if (tree->kind == TreeKind::ProcessGroup) return signal_process_group(tree->root, SIGKILL);
    return unless_ended(tree.get(), kill_tree_group(tree->group));
}

int tree_signal(int64_t token, int signal) {
    TreeRef tree(token);
    if (!tree) return ESRCH;
    if (!lives(tree.get())) return 0;
    if (tree->kind == TreeKind::ProcessGroup) return signal_process_group(tree->root, signal);
    return unless_ended(tree.get(), signal_tree_group(tree->group, signal));
}

bool tree_empty(int64_t token, TreeUsage* usage) {
    TreeRef tree(token);
    if (!tree) return true;
    if (!ended(tree.get())) {
        // The figures so far; the groups stay until the event set settles the tree.
        *usage = tree_group_usage(tree->group);
        if (lives(tree.get())) return false;
    }
    // Settled, maybe meanwhile (its groups then gone while they were read): the final figures.
    pthread_mutex_lock(&lock);
    if (tree->empty) *usage = tree->usage;
    pthread_mutex_unlock(&lock);
    return true;
}

void release_tree(int64_t token) {
    pthread_mutex_lock(&lock);
    auto* tree = static_cast<Tree*>(trees.find(static_cast<uint64_t>(token)));
    bool now = tree != nullptr && tree->empty && tree->users == 0;
    if (tree != nullptr) tree->released = true;
    if (now) trees.erase(static_cast<uint64_t>(token));
    pthread_mutex_unlock(&lock);
    if (now) free_tree(tree);
}

int tree_waker(int64_t token, bool* priority) {
    TreeRef tree(token);
    if (!tree || ended(tree.get())) return -1;
    *priority = tree->kind == TreeKind::Cgroup;
    return tree->kind == TreeKind::Cgroup ? cgroup_waker(tree.get()) : process_group_waker(tree.get());
}

int tree_member(int64_t token) {
    TreeRef tree(token);
    return tree && tree->kind == TreeKind::Cgroup ? tree_group_member(tree->group) : 0;
}

bool tree_settle(int64_t token, bool* released) {
    *released = false;
    TreeRef tree(token);
    if (!tree) return true;
    bool empty = settle(tree.get());
    if (empty) {
        pthread_mutex_lock(&lock);
        *released = tree->released;
        pthread_mutex_unlock(&lock);
    }
    return empty;
}
