// The groups of contained trees: made below this process's own groups, limited, killed, signalled while
// frozen, watched for emptiness, measured and removed.
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "containment/containment.h"

namespace {
enum Hierarchy { kUnified = 0, kMemoryV1 = 1, kPidsV1 = 2 };
// A name can be taken already: by a leftover of a process that had this PID, or by a process of another
// PID namespace that shares the parent group. Then the next number is tried.
constexpr int kNameAttempts = 8;
constexpr int kFreezeMillis = 5000;
constexpr int kMaxDepth = 32;
// Groups that members made below a tree's are removed with it, this many at most per call: the rest stays
// for a later call or the next process's sweep.
constexpr int kMaxRemovals = 4096;

std::atomic<unsigned> group_counter{0};

int open_at(int directory, const char* file, int flags) {
    return move_above_standard(retry_on_eintr([&] { return openat(directory, file, flags | O_CLOEXEC); }));
}

// Writes `text` to a control file of the group: 0 or an errno.
int write_control(int directory, const char* file, const char* text) {
    UniqueFd control(open_at(directory, file, O_WRONLY));
    if (control.get() < 0) return errno;
    size_t length = strlen(text);
    ssize_t written = retry_on_eintr([&] { return write(control.get(), text, length); });
    if (written < 0) return errno;
    return static_cast<size_t>(written) == length ? 0 : EIO;
}

int write_number(int directory, const char* file, int64_t value) {
    char text[32];
    snprintf(text, sizeof text, "%" PRId64, value);
    return write_control(directory, file, text);
}

// A control file that older kernels or other setups lack (memory.swap.max without swap accounting,
// memory.memsw.* without swap) is written where it exists.
int write_number_if_present(int directory, const char* file, int64_t value) {
    int err = write_number(directory, file, value);
    return err == ENOENT ? 0 : err;
}

// The text of a control file from its start, terminated: its length, or -1 with errno.
ssize_t read_control(int file, char* text, size_t size) {
    ssize_t length = retry_on_eintr([&] { return pread(file, text, size - 1, 0); });
    if (length >= 0) text[length] = 0;
    return length;
}

// The value of the "key N" line of a flat keyed file (cgroup.events, memory.events, memory.oom_control).
bool keyed_value(const char* text, const char* key, int64_t* value) {
    size_t keyLength = strlen(key);
    for (const char* line = text; *line != 0;) {
        if (strncmp(line, key, keyLength) == 0 && line[keyLength] == ' ') {
            char* end;
            errno = 0;
            long long parsed = strtoll(line + keyLength + 1, &end, 10);
            if (errno != 0 || end == line + keyLength + 1) return false;
            *value = parsed;
            return true;
        }
        const char* next = strchr(line, '\n');
        if (next == nullptr) break;
        line = next + 1;
    }
    return false;
}

int keyed_value_of(int file, const char* key, int64_t* value) {
    char text[512];
    if (read_control(file, text, sizeof text) < 0) return errno;
    return keyed_value(text, key, value) ? 0 : EIO;
}

// The whole file's number (memory.peak, memory.max_usage_in_bytes); -1 when it can't be read.
int64_t number_in(int directory, const char* file) {
    UniqueFd control(open_at(directory, file, O_RDONLY));
    char text[64];
    if (control.get() < 0 || read_control(control.get(), text, sizeof text) <= 0) return -1;
    char* end;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    return errno == 0 && end != text ? value : -1;
}

// The group `name` below this process's group at `place`: the place's descriptor (kept for the removal)
// and the group's. 0 or an errno; EEXIST when the name is taken.
int make_directory(const char* place, const char* name, UniqueFd* owner, UniqueFd* directory) {
    UniqueFd parent(open_at(AT_FDCWD, place, O_RDONLY | O_DIRECTORY));
    if (parent.get() < 0) return errno;
    if (mkdirat(parent.get(), name, 0755) != 0) return errno;
    UniqueFd made(open_at(parent.get(), name, O_RDONLY | O_DIRECTORY));
    if (made.get() < 0) {
        int err = errno;
        unlinkat(parent.get(), name, AT_REMOVEDIR);
        return err;
    }
    *owner = std::move(parent);
    *directory = std::move(made);
    return 0;
}

int make_unified(const CgroupPlaces& places, TreeGroup* group) {
    int err = make_directory(places.unified, group->name, &group->owners[kUnified], &group->unified);
    if (err != 0) return err;
    group->events.reset(open_at(group->unified.get(), "cgroup.events", O_RDONLY));
    if (group->events.get() < 0) return errno;
    group->killFile.reset(open_at(group->unified.get(), "cgroup.kill", O_WRONLY));
    if (group->killFile.get() < 0 && errno != ENOENT) return errno; // ENOENT: a kernel before 5.14
    return 0;
}

// A v1 group that the new process joins itself, through `join`.
int make_v1(const char* place, const char* name, UniqueFd* owner, UniqueFd* directory, UniqueFd* join) {
    int err = make_directory(place, name, owner, directory);
    if (err != 0) return err;
    join->reset(open_at(directory->get(), "cgroup.procs", O_WRONLY));
    return join->get() < 0 ? errno : 0;
}

int limit_memory(const CgroupPlaces& places, int64_t bytes, TreeGroup* group) {
    if (places.memoryUnified) {
        int err = write_number(group->unified.get(), "memory.max", bytes);
        // Swap would let the tree go past the limit: none, as memsw gives in v1.
        return err != 0 ? err : write_number_if_present(group->unified.get(), "memory.swap.max", 0);
    }
    int err =
        make_v1(places.memory, group->name, &group->owners[kMemoryV1], &group->memoryV1, &group->joins[0]);
    if (err == 0) err = write_number(group->memoryV1.get(), "memory.limit_in_bytes", bytes);
    if (err == 0) err = write_number_if_present(group->memoryV1.get(), "memory.memsw.limit_in_bytes", bytes);
    return err;
}

int limit_processes(const CgroupPlaces& places, int64_t count, TreeGroup* group) {
    if (places.pidsUnified) return write_number(group->unified.get(), "pids.max", count);
    // One v1 hierarchy may carry both controllers: then the memory group holds the limit too.
    if (group->memoryV1.get() >= 0 && strcmp(places.pids, places.memory) == 0)
        return write_number(group->memoryV1.get(), "pids.max", count);
    UniqueFd directory;
    int err = make_v1(places.pids, group->name, &group->owners[kPidsV1], &directory, &group->joins[1]);
    return err != 0 ? err : write_number(directory.get(), "pids.max", count);
}

int make_groups(const CgroupPlaces& places, const TreeLimits& limits, TreeGroup* group) {
    int err = places.unified[0] != 0 ? make_unified(places, group) : 0;
    if (err == 0 && limits.memoryBytes >= 0) err = limit_memory(places, limits.memoryBytes, group);
    if (err == 0 && limits.processes >= 0) err = limit_processes(places, limits.processes, group);
    return err;
}

void reset_group(TreeGroup* group) {
    group->unified.reset();
    group->events.reset();
    group->killFile.reset();
    group->joins[0].reset();
    group->joins[1].reset();
    group->memoryV1.reset();
    for (UniqueFd& owner : group->owners)
        owner.reset();
}

// The controller a limit needs and no hierarchy carries, or null.
const char* missing_controller(const CgroupPlaces& places, const TreeLimits& limits) {
    if (limits.memoryBytes >= 0 &&
        (places.memory[0] == 0 || (places.memoryUnified && places.unified[0] == 0)))
        return "memory";
    if (limits.processes >= 0 && (places.pids[0] == 0 || (places.pidsUnified && places.unified[0] == 0)))
        return "pids";
    return nullptr;
}

int64_t millis_now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits until cgroup.events says "frozen 1", or "populated 0" (the last member ended meanwhile: nothing is
// left to freeze): 0, ETIMEDOUT or an errno. It polls an open file of its own: a read through another one
// would take the notification of the change from it.
int await_frozen(const TreeGroup& group) {
    UniqueFd events(open_at(group.unified.get(), "cgroup.events", O_RDONLY));
    if (events.get() < 0) return errno;
    int64_t deadline = millis_now() + kFreezeMillis;
    char text[512];
    for (;;) {
        int64_t frozen = 0, populated = 1;
        if (read_control(events.get(), text, sizeof text) < 0) return errno;
        if (!keyed_value(text, "frozen", &frozen) || !keyed_value(text, "populated", &populated)) return EIO;
        if (frozen == 1 || populated == 0) return 0;
        int64_t left = deadline - millis_now();
        if (left <= 0) return ETIMEDOUT;
        pollfd change = {events.get(), POLLPRI, 0};
        if (poll(&change, 1, static_cast<int>(left)) < 0 && errno != EINTR) return errno;
    }
}

// Calls visit(name) for each group directly below `directory`: 0, the first errno of a visit, or the
// listing's own.
template <typename Visit> int for_each_subgroup(int directory, Visit visit) {
    UniqueFd self(open_at(directory, ".", O_RDONLY | O_DIRECTORY));
    DIR* listing = self.get() >= 0 ? fdopendir(self.get()) : nullptr;
    if (listing == nullptr) return errno;
    self.release(); // the listing's now
    int first = 0;
    for (;;) {
        errno = 0;
        dirent* entry = readdir(listing);
        if (entry == nullptr) {
            if (errno != 0 && first == 0) first = errno;
            break;
        }
        if (entry->d_type != DT_DIR || strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
            continue;
        int err = visit(entry->d_name);
        if (err != 0 && first == 0) first = err;
    }
    closedir(listing);
    return first;
}

// The group `name` below `directory`: its descriptor, or -1 with errno.
int open_subgroup(int directory, const char* name) {
    return open_at(directory, name, O_RDONLY | O_DIRECTORY);
}

// Sends the signal to each PID listed in the group's cgroup.procs: 0 or the first errno other than ESRCH.
int signal_listed(int directory, int signal) {
    UniqueFd procs(open_at(directory, "cgroup.procs", O_RDONLY));
    if (procs.get() < 0) return errno;
    int first = 0;
    auto send = [&](long pid) {
        if (kill(static_cast<pid_t>(pid), signal) != 0 && errno != ESRCH && first == 0) first = errno;
    };
    char buffer[4096];
    long pid = 0; // the number being read, which may go on in the next chunk
    for (;;) {
        ssize_t length = retry_on_eintr([&] { return read(procs.get(), buffer, sizeof buffer); });
        if (length < 0) return errno;
        if (length == 0) break;
        for (ssize_t i = 0; i < length; ++i) {
            if (buffer[i] >= '0' && buffer[i] <= '9') {
                pid = pid * 10 + (buffer[i] - '0');
            } else {
                if (pid > 0) send(pid);
                pid = 0;
            }
        }
    }
    if (pid > 0) send(pid);
    return first;
}

// Members may have made groups of their own below the tree's: those are reached too.
int signal_members(int directory, int signal, int depth) {
    int first = signal_listed(directory, signal);
    if (depth >= kMaxDepth) return first;
    int err = for_each_subgroup(directory, [&](const char* name) {
        UniqueFd below(open_subgroup(directory, name));
        int err = below.get() < 0 ? errno : signal_members(below.get(), signal, depth + 1);
        return err == ENOENT ? 0 : err; // ENOENT: the group went meanwhile
    });
    return first != 0 ? first : err;
}

// The signal to every member with the group frozen meanwhile; the caller holds group.freezing.
int signal_frozen(const TreeGroup& group, int signal) {
    // Kernels before 5.2 have no v2 freezer: there the signal goes out unfrozen.
    int freezeErr = write_control(group.unified.get(), "cgroup.freeze", "1");
    bool frozen = freezeErr == 0;
    if (freezeErr == ENOENT) freezeErr = 0;
    if (frozen) freezeErr = await_frozen(group);
    int err = signal_members(group.unified.get(), signal, 0); // also when the freeze failed: best effort
    if (frozen) {
        int thawErr = write_control(group.unified.get(), "cgroup.freeze", "0");
        if (err == 0) err = thawErr;
    }
    return err != 0 ? err : freezeErr;
}

// The first PID that the group's cgroup.procs lists: 0 when none, -1 when it can't be read.
int first_listed(int directory) {
    UniqueFd procs(open_at(directory, "cgroup.procs", O_RDONLY));
    char text[32];
    ssize_t got =
        procs.get() < 0 ? -1 : retry_on_eintr([&] { return read(procs.get(), text, sizeof text - 1); });
    if (got < 0) return -1;
    text[got] = 0;
    return atoi(text);
}

// A process of the group or of a group below it, depth first: its PID, or 0.
int member_below(int directory, int depth) {
    int member = first_listed(directory);
    if (member > 0 || depth >= kMaxDepth) return member > 0 ? member : 0;
    member = 0;
    for_each_subgroup(directory, [&](const char* name) {
        UniqueFd below(member == 0 ? open_subgroup(directory, name) : -1);
        if (below.get() >= 0) member = member_below(below.get(), depth + 1);
        return 0;
    });
    return member;
}

// Whether no process is left in the group or below it: v2 tells it at once ("populated 0"), v1 by an empty
// cgroup.procs in every group. What can't be read counts as a process.
bool nothing_runs_in(int directory, int depth) {
    UniqueFd events(open_at(directory, "cgroup.events", O_RDONLY));
    int64_t populated = 1;
    if (events.get() >= 0)
        return keyed_value_of(events.get(), "populated", &populated) == 0 && populated == 0;
    if (first_listed(directory) != 0 || depth >= kMaxDepth) return false;
    bool none = true;
    int err = for_each_subgroup(directory, [&](const char* name) {
        UniqueFd below(none ? open_subgroup(directory, name) : -1);
        none = none && below.get() >= 0 && nothing_runs_in(below.get(), depth + 1);
        return 0;
    });
    return err == 0 && none;
}

// Removes every group below `directory`, deepest first, while `*budget` lasts. What can't go shows when the
// caller removes `directory` itself.
void remove_subgroups(int directory, int depth, int* budget) {
    for_each_subgroup(directory, [&](const char* name) {
        if (*budget <= 0) return 0;
        --*budget;
        if (depth < kMaxDepth) {
            UniqueFd below(open_subgroup(directory, name));
            if (below.get() >= 0) remove_subgroups(below.get(), depth + 1, budget);
        }
        unlinkat(directory, name, AT_REMOVEDIR);
        return 0;
    });
}

// Removes the group `name` below `parent`; when members made groups below it (rmdir says EBUSY), those
// too, but only once no process is left in any of them. 0 (also when it is gone already) or an errno.
int remove_group(int parent, const char* name, int* budget) {
    if (unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT) return 0;
    if (errno != EBUSY) return errno;
    UniqueFd directory(open_subgroup(parent, name));
    if (directory.get() < 0) return errno == ENOENT ? 0 : errno;
    if (!nothing_runs_in(directory.get(), 0)) return EBUSY;
    remove_subgroups(directory.get(), 0, budget);
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : errno;
}

// Whether `name` is "quillon-<pid>-<n>" of another process that no longer runs.
bool stale_name(const char* name) {
    const char* prefix = "quillon-";
    if (strncmp(name, prefix, strlen(prefix)) != 0) return false;
    char* end;
    errno = 0;
    long pid = strtol(name + strlen(prefix), &end, 10);
    if (errno != 0 || pid <= 0 || *end != '-' || end[1] < '0' || end[1] > '9') return false;
    const char* counter = end + 1;
    while (*counter >= '0' && *counter <= '9')
        ++counter;
    if (*counter != 0 || pid == getpid()) return false;
    return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

void remove_stale_below(const char* place) {
    UniqueFd directory(open_at(AT_FDCWD, place, O_RDONLY | O_DIRECTORY));
    if (directory.get() < 0) return;
    int budget = kMaxRemovals;
    for_each_subgroup(directory.get(), [&](const char* name) {
        if (stale_name(name)) remove_group(directory.get(), name, &budget); // EBUSY: a process lives there
        return 0;
    });
}
} // namespace

int make_tree_group(const CgroupPlaces& places, const TreeLimits& limits, TreeGroup* group,
                    const char** missing) {
    *missing = nullptr;
    if (limits.memoryBytes < -1 || limits.processes < -1) return EINVAL;
    *missing = missing_controller(places, limits);
    if (*missing != nullptr) return ENODEV;
    int err = EEXIST;
    for (int attempt = 0; attempt < kNameAttempts && err == EEXIST; ++attempt) {
        snprintf(group->name, sizeof group->name, "quillon-%d-%u", static_cast<int>(getpid()),
                 group_counter.fetch_add(1, std::memory_order_relaxed));
        err = make_groups(places, limits, group);
        if (err != 0) {
            remove_tree_group(group);
            reset_group(group);
        }
    }
    return err;
}

int kill_tree_group(const TreeGroup& group) {
    if (group.killFile.get() < 0) return ENOTSUP;
    ssize_t written = retry_on_eintr([&] { return write(group.killFile.get(), "1", 1); });
    return written == 1 ? 0 : errno;
}

int move_above_standard(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int err = errno;
    close(fd);
    errno = err;
    return moved;
}

int signal_tree_group(const TreeGroup& group, int signal) {
    if (group.unified.get() < 0 || group.events.get() < 0) return ENOTSUP;
    pthread_mutex_lock(&group.freezing);
    int err = signal_frozen(group, signal);
    pthread_mutex_unlock(&group.freezing);
    return err;
}

int tree_group_populated(const TreeGroup& group, bool* populated) {
    if (group.events.get() < 0) return ENOTSUP;
    int64_t value = 0;
    int err = keyed_value_of(group.events.get(), "populated", &value);
    if (err == 0) *populated = value != 0;
    return err;
}

int watch_tree_group(const TreeGroup& group, bool* populated) {
    if (group.unified.get() < 0) {
        errno = ENOTSUP;
        return -1;
    }
    UniqueFd events(open_at(group.unified.get(), "cgroup.events", O_RDONLY));
    int64_t value = 0;
    int err = events.get() < 0 ? errno : keyed_value_of(events.get(), "populated", &value);
    if (err != 0) {
        errno = err;
        return -1;
    }
    *populated = value != 0;
    return events.release();
}

int tree_group_member(const TreeGroup& group) {
    return group.unified.get() < 0 ? 0 : member_below(group.unified.get(), 0);
}

TreeUsage tree_group_usage(const TreeGroup& group) {
    TreeUsage usage = {false, -1};
    int64_t kills = 0;
    if (group.memoryV1.get() >= 0) {
        UniqueFd control(open_at(group.memoryV1.get(), "memory.oom_control", O_RDONLY));
        usage.killedForMemory =
            control.get() >= 0 && keyed_value_of(control.get(), "oom_kill", &kills) == 0 && kills > 0;
        usage.peakBytes = number_in(group.memoryV1.get(), "memory.max_usage_in_bytes");
    } else if (group.unified.get() >= 0) {
        UniqueFd control(open_at(group.unified.get(), "memory.events", O_RDONLY));
        usage.killedForMemory =
            control.get() >= 0 && keyed_value_of(control.get(), "oom_kill", &kills) == 0 && kills > 0;
        usage.peakBytes = number_in(group.unified.get(), "memory.peak");
    }
    return usage;
}

int remove_tree_group(TreeGroup* group) {
    int first = 0;
    int budget = kMaxRemovals;
    for (UniqueFd& owner : group->owners) {
        if (owner.get() < 0) continue;
        int err = remove_group(owner.get(), group->name, &budget);
        if (err == 0)
            owner.reset();
        else if (first == 0)
            first = err;
    }
    return first;
}

void remove_stale_groups(const CgroupPlaces& places) {
    if (places.unified[0] != 0) remove_stale_below(places.unified);
    if (places.memory[0] != 0 && !places.memoryUnified) remove_stale_below(places.memory);
    if (places.pids[0] != 0 && !places.pidsUnified && strcmp(places.pids, places.memory) != 0)
        remove_stale_below(places.pids);
}
