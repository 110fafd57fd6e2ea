// One epoll set over the pidfds of watched processes and the pipes of launched programs, served by one
// thread. What the set can't hold (a process without a pidfd, a descriptor the set refuses) is looked at
// every tenth of a second instead.
//
// The set names what it watches by ids, never by addresses: an event that arrives for something another
// thread has just dropped finds no id and is ignored. Everything here is under one lock, taken by the serving
// thread only outside epoll_wait.
#include "supervision/events.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "quillon/result_codes.h"
#include "runtime/pidfd.h"
#include "runtime/support.h"
#include "supervision/id_table.h"
#include "supervision/supervision_internal.h"
#include "supervision/trees.h"

namespace {
constexpr int kFallbackMillis = 100;
constexpr size_t kChunk = 64 * 1024;
constexpr size_t kFirstCapture = 4096;
constexpr int kReadsPerWake = 16; // a pipe that never runs dry leaves room for the rest between its rounds
constexpr uint64_t kWakeId = 0;

// Every watch of one process: its pidfd is in the set once for all of them.
struct ProcessWatch {
    uint64_t id;
    ProcessEntry* entry; // a reference of its own
    int64_t* handles;    // kReapOnly among them, reported to nobody
    size_t count;
    size_t capacity;
    bool due; // ended, its handles not yet all reported
    bool inSet;
    bool polled; // looked at every tenth of a second: no pidfd, or the set refused it
    ProcessWatch* nextDue;
};

// A contained tree, until it is empty.
struct TreeWatch {
    int64_t token;
    int fd; // what wakes it, registered under the token; -1 while it is looked at now and then
    // A cgroup tree's member's pidfd (the root's first), under the same token: the group tells its emptiness
    // through a notification the kernel sends late when busy, but a member's end is known at once. When the
    // member watched ends, the group is read, and another member is watched.
    int memberFd;
    bool due; // empty, to be reported
    TreeWatch* nextDue;
};
TreeWatch* trees_due = nullptr;

enum class Mode { Capture, Deliver, Feed };

struct Source {
    uint64_t id; // its token
    int fd;      // -1 once the pipe has ended or the source was cancelled
    Mode mode;
    bool inSet;
    bool polled;     // the set refused the pipe: served every tenth of a second
    bool pending;    // an event waits to be reported
    bool waiting;    // a delivery's chunk (or its end) waits to be taken
    bool discarding; // a delivery that drops what it reads
    char* data;      // capture: what was read; delivery: the chunk; feed: the input
    size_t size;
    size_t capacity;
    size_t limit;     // capture: what is kept at most
    size_t written;   // feed
    uint64_t dropped; // capture: what went beyond the limit
    Source* nextPending;
};

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
int epoll_fd = -1;
int wake_fd = -1; // an eventfd in the set: something due at once wakes the waiter
IdTable watches_by_id;
IdTable watches_by_entry;
IdTable watches_by_handle;
IdTable sources;
IdTable tree_watches; // tree token -> TreeWatch
ProcessWatch* due_head = nullptr;
Source* pending_head = nullptr;
size_t unpolled = 0; // watches and sources looked at every tenth of a second
char scratch[kChunk];

uint64_t next_id() {
    return unique_handle();
}

// The caller holds the lock.
int open_set() {
    if (epoll_fd >= 0) return 0;
    UniqueFd set(epoll_create1(EPOLL_CLOEXEC));
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kWakeId;
    if (set.get() < 0 || wake.get() < 0 || epoll_ctl(set.get(), EPOLL_CTL_ADD, wake.get(), &event) != 0)
        return errno;
    epoll_fd = set.release(); // for the life of the process
    wake_fd = wake.release();
    return 0;
}

void wake() {
    uint64_t one = 1;
    ssize_t ignored = write(wake_fd, &one, sizeof one);
    (void)ignored;
}

bool add_to_set(int fd, uint64_t id, uint32_t interest) {
    epoll_event event = {};
    event.events = interest;
    event.data.u64 = id;
    return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

// ---- Process watches ----

// Looks at the process: a child is collected (reaped, its status stored), anything else observed. Whatever
// becomes of the report afterwards, an ended child never stays a zombie.
bool has_ended(ProcessEntry* entry) {
    Collection collected = collect_child(entry);
    if (collected.waitResult == -1 && collected.err == ECHILD) observe_non_child(entry);
    return entry_ended(entry);
}

void make_due(ProcessWatch* watch) {
    if (watch->due) return;
    if (watch->inSet) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, entry_pidfd(watch->entry), nullptr);
    watch->inSet = false;
    has_ended(watch->entry);
    watch->due = true;
    watch->nextDue = due_head;
    due_head = watch;
}

void free_watch(ProcessWatch* watch) {
    watches_by_id.erase(watch->id);
    watches_by_entry.erase(reinterpret_cast<uint64_t>(watch->entry));
    if (watch->inSet) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, entry_pidfd(watch->entry), nullptr);
    if (watch->polled) --unpolled;
    release_entry(watch->entry);
    free(watch->handles);
    free(watch);
}

// The watch of the entry, made when there is none yet. Null when memory ran out.
ProcessWatch* watch_of(ProcessEntry* entry) {
    auto* watch = static_cast<ProcessWatch*>(watches_by_entry.find(reinterpret_cast<uint64_t>(entry)));
    if (watch != nullptr) return watch;
    watch = static_cast<ProcessWatch*>(calloc(1, sizeof(ProcessWatch)));
    if (watch == nullptr) return nullptr;
    watch->id = next_id();
    watch->entry = entry;
    if (!watches_by_id.insert(watch->id, watch) ||
        !watches_by_entry.insert(reinterpret_cast<uint64_t>(entry), watch)) {
        watches_by_id.erase(watch->id);
        free(watch);
        return nullptr;
    }
    retain_entry(entry);
    if (entry_ended(entry)) {
        make_due(watch);
        return watch;
    }
    int pidfd = entry_pidfd(entry);
    watch->inSet = pidfd >= 0 && add_to_set(pidfd, watch->id, EPOLLIN);
    watch->polled = !watch->inSet;
    if (watch->polled) ++unpolled;
    return watch;
}

bool add_handle(ProcessWatch* watch, int64_t handle) {
    if (watch->count == watch->capacity) {
        size_t bigger = watch->capacity == 0 ? 2 : watch->capacity * 2;
        auto* grown = static_cast<int64_t*>(realloc(watch->handles, bigger * sizeof(int64_t)));
        if (grown == nullptr) return false;
        watch->handles = grown;
        watch->capacity = bigger;
    }
    if (handle != kReapOnly && watches_by_handle.find(static_cast<uint64_t>(handle)) == nullptr &&
        !watches_by_handle.insert(static_cast<uint64_t>(handle), watch))
        return false;
    watch->handles[watch->count++] = handle;
    return true;
}

void unlink_due(ProcessWatch* watch) {
    for (ProcessWatch** link = &due_head; *link != nullptr; link = &(*link)->nextDue) {
        if (*link == watch) {
            *link = watch->nextDue;
            return;
        }
    }
}

// Reports the handles of due watches into `events`; a watch whose handles are all out goes.
int report_ended(Event* events, int capacity) {
    int count = 0;
    while (due_head != nullptr && count < capacity) {
        ProcessWatch* watch = due_head;
        while (watch->count > 0 && count < capacity) {
            int64_t handle = watch->handles[--watch->count];
            if (handle == kReapOnly) continue;
            watches_by_handle.erase(static_cast<uint64_t>(handle));
            events[count++] = {kEventEnded, handle};
        }
        if (watch->count > 0) break;
        due_head = watch->nextDue;
        free_watch(watch);
    }
    return count;
}

// ---- Sources ----

Source* source_of(int64_t token) {
    return static_cast<Source*>(sources.find(static_cast<uint64_t>(token)));
}

void make_pending(Source* source) {
    if (source->pending) return;
    source->pending = true;
    source->nextPending = pending_head;
    pending_head = source;
}

void disarm(Source* source) {
    if (source->inSet) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, source->fd, nullptr);
    if (source->polled) --unpolled;
    source->inSet = false;
    source->polled = false;
}

void arm(Source* source) {
    if (source->fd < 0 || source->inSet || source->polled) return;
    source->inSet = add_to_set(source->fd, source->id, source->mode == Mode::Feed ? EPOLLOUT : EPOLLIN);
    if (source->inSet) return;
    source->polled = true; // a pipe the set refuses is served every tenth of a second
    ++unpolled;
    wake();
}

// The pipe has ended (or failed, or the source was cancelled): its descriptor goes, and the end is reported.
void end_source(Source* source) {
    disarm(source);
    if (source->fd >= 0) close(source->fd);
    source->fd = -1;
    if (source->mode == Mode::Deliver) source->waiting = true;
    make_pending(source);
}

// Keeps what fits under the limit and counts the rest. False when memory ran out.
bool keep(Source* source, const char* bytes, size_t size) {
    size_t kept = size < source->limit - source->size ? size : source->limit - source->size;
    if (source->size + kept > source->capacity) {
        size_t bigger = source->capacity == 0 ? kFirstCapture : source->capacity;
        while (bigger < source->size + kept)
            bigger *= 2;
        if (bigger > source->limit) bigger = source->limit;
        auto* grown = static_cast<char*>(realloc(source->data, bigger));
        if (grown == nullptr) return false;
        source->data = grown;
        source->capacity = bigger;
    }
    memcpy(source->data + source->size, bytes, kept);
    source->size += kept;
    source->dropped += size - kept;
    return true;
}

// One read of the pipe into `buffer`: its size, 0 when it holds nothing now, -1 after its end (or a failure,
// which ends it as well).
ssize_t read_some(Source* source, char* buffer) {
    for (;;) {
        ssize_t got = read(source->fd, buffer, kChunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno == EAGAIN) return 0;
        if (got > 0) return got;
        end_source(source);
        return -1;
    }
}

// A delivery's next chunk, read straight into memory of its own so that nothing read is lost when memory
// runs out; one that drops what it reads reads into the scratch buffer. What read_some gives.
ssize_t read_chunk(Source* source) {
    char* chunk = source->discarding ? scratch : static_cast<char*>(malloc(kChunk));
    if (chunk == nullptr) { // nothing read: tried again at the next round
        wake();
        return 0;
    }
    ssize_t got = read_some(source, chunk);
    if (got <= 0 || source->discarding) {
        if (chunk != scratch) free(chunk);
        return got;
    }
    auto* fitted = static_cast<char*>(realloc(chunk, static_cast<size_t>(got)));
    source->data = fitted != nullptr ? fitted : chunk;
    source->size = static_cast<size_t>(got);
    source->waiting = true;
    disarm(source);
    make_pending(source);
    return got;
}

// Reads what the pipe holds now, a bounded number of reads per round: a capture keeps it, a delivery hands
// out one chunk and waits until it is taken.
void serve_reading(Source* source) {
    for (int reads = 0; reads < kReadsPerWake && source->fd >= 0 && !source->waiting; ++reads) {
        if (source->mode == Mode::Deliver) {
            if (read_chunk(source) <= 0 || !source->discarding) return;
            continue;
        }
        ssize_t got = read_some(source, scratch);
        if (got <= 0) return;
        if (!keep(source, scratch, static_cast<size_t>(got))) source->dropped += static_cast<size_t>(got);
    }
}

void serve_feed(Source* source) {
    while (source->written < source->size) {
        ssize_t put = write(source->fd, source->data + source->written, source->size - source->written);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0 && errno == EAGAIN) return;
        if (put < 0) break; // the reader went away
        source->written += static_cast<size_t>(put);
    }
    end_source(source);
}

void serve(Source* source) {
    if (source->fd < 0) return;
    if (source->mode == Mode::Feed)
        serve_feed(source);
    else if (!source->waiting)
        serve_reading(source);
}

// ---- Tree watches ----

void drop_member(TreeWatch* watch) {
    if (watch->memberFd < 0) return;
    epoll_ctl(epoll_fd, EPOLL_CTL_DEL, watch->memberFd, nullptr);
    close(watch->memberFd);
    watch->memberFd = -1;
}

// Watches a member of a cgroup tree, the given one or else one its cgroup.procs lists.
void watch_member(TreeWatch* watch, int pid) {
    if (pid == 0) pid = tree_member(watch->token);
    watch->memberFd = pid > 0 ? quillon_pidfd_open(pid) : -1;
    if (watch->memberFd >= 0 && !add_to_set(watch->memberFd, static_cast<uint64_t>(watch->token), EPOLLIN)) {
        close(watch->memberFd);
        watch->memberFd = -1;
    }
}

// Registers what wakes the tree now (a descriptor that is the set's own: a cgroup tree's open file of its
// cgroup.events, which no other reader shares, so none takes its notification), or marks it due when it is
// empty. The caller holds the lock.
void arm_tree(TreeWatch* watch) {
    bool priority = false;
    int waker = tree_waker(watch->token, &priority);
    int fd = waker >= 0 ? waker : -1;
    if (fd >= 0 && add_to_set(fd, static_cast<uint64_t>(watch->token), priority ? EPOLLPRI : EPOLLIN)) {
        watch->fd = fd;
        if (priority && watch->memberFd < 0) watch_member(watch, 0);
        return;
    }
    if (fd >= 0) close(fd);
    watch->fd = -1;
    if (waker != -1) { // a live tree without a waker the set takes: looked at now and then
        ++unpolled;
        return;
    }
    drop_member(watch);
    watch->due = true;
    watch->nextDue = trees_due;
    trees_due = watch;
}

// A tree's descriptor woke, or it is looked at: empty, it is reported; else its waker is set again.
void serve_tree(TreeWatch* watch) {
    if (watch->memberFd >= 0) {
        pollfd ended = {watch->memberFd, POLLIN, 0};
        if (poll(&ended, 1, 0) == 1) drop_member(watch);
    }
    if (watch->due) return;
    if (watch->fd >= 0) {
        epoll_ctl(epoll_fd, EPOLL_CTL_DEL, watch->fd, nullptr);
        close(watch->fd);
    } else {
        --unpolled;
    }
    watch->fd = -1;
    arm_tree(watch);
}

int report_trees(Event* events, int capacity) {
    int count = 0;
    while (trees_due != nullptr && count < capacity) {
        TreeWatch* watch = trees_due;
        trees_due = watch->nextDue;
        bool released = false;
        tree_settle(watch->token, &released);
        if (!released) events[count++] = {kEventTree, watch->token};
        tree_watches.erase(static_cast<uint64_t>(watch->token));
        free(watch);
    }
    return count;
}

int report_sources(Event* events, int capacity) {
    int count = 0;
    while (pending_head != nullptr && count < capacity) {
        Source* source = pending_head;
        pending_head = source->nextPending;
        source->pending = false;
        int kind = source->mode == Mode::Capture ? kEventCaptured
                   : source->mode == Mode::Feed  ? kEventFed
                                                 : kEventChunk;
        events[count++] = {kind, static_cast<int64_t>(source->id)};
    }
    return count;
}

int64_t add_source(int fd, Mode mode, size_t limit, const void* input, size_t size) {
    pthread_mutex_lock(&lock);
    auto* source = open_set() == 0 ? static_cast<Source*>(calloc(1, sizeof(Source))) : nullptr;
    bool made = source != nullptr;
    if (made) {
        *source = {};
        source->id = next_id();
        source->fd = fd;
        source->mode = mode;
        source->limit = limit;
        if (mode == Mode::Feed && size > 0) {
            source->data = static_cast<char*>(malloc(size));
            made = source->data != nullptr;
            if (made) memcpy(source->data, input, size);
            source->size = size;
        }
        made = made && sources.insert(source->id, source);
    }
    if (!made) {
        if (source != nullptr) free(source->data);
        free(source);
        pthread_mutex_unlock(&lock);
        close(fd);
        return 0;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    arm(source);
    int64_t token = static_cast<int64_t>(source->id);
    pthread_mutex_unlock(&lock);
    return token;
}

void unlink_pending(Source* source) {
    if (!source->pending) return;
    for (Source** link = &pending_head; *link != nullptr; link = &(*link)->nextPending) {
        if (*link == source) {
            *link = source->nextPending;
            break;
        }
    }
    source->pending = false;
}

void wait_for_events(int timeout, epoll_event* ready, int* count) {
    pthread_mutex_lock(&lock);
    open_set(); // without it, the first watch could not wake a waiter that came before it
    int set = epoll_fd;
    if (due_head != nullptr || pending_head != nullptr || trees_due != nullptr) timeout = 0;
    if (unpolled > 0 && (timeout < 0 || timeout > kFallbackMillis)) timeout = kFallbackMillis;
    pthread_mutex_unlock(&lock);
    *count = 0;
    if (set >= 0) {
        *count = epoll_wait(set, ready, 64, timeout);
    } else if (timeout != 0) { // no set: the system refused one; look again later
        poll(nullptr, 0, timeout < 0 || timeout > kFallbackMillis ? kFallbackMillis : timeout);
    }
}
} // namespace

int watch_record(int64_t handle, UnixProcessData* data, int* sysErr) {
    int result = ensure_entry(data, sysErr);
    if (result != PROC_SUCCESS) return result;
    pthread_mutex_lock(&lock);
    int err = open_set();
    ProcessWatch* watch = err == 0 ? watch_of(entry_of(data)) : nullptr;
    bool added = watch != nullptr && add_handle(watch, handle);
    if (watch != nullptr && watch->count == 0) {
        if (watch->due) unlink_due(watch);
        free_watch(watch);
    }
    if (added && watch->due) wake();
    if (added && watch->polled) wake(); // the waiter learns to look every tenth of a second
    pthread_mutex_unlock(&lock);
    if (!added) {
        *sysErr = err != 0 ? err : ENOMEM;
        return result_for_errno(*sysErr, {}, PROC_SYSTEM_ERR);
    }
    *sysErr = 0;
    return PROC_SUCCESS;
}

void forget_watches(int64_t handle) {
    if (handle == kReapOnly) return;
    pthread_mutex_lock(&lock);
    auto* watch = static_cast<ProcessWatch*>(watches_by_handle.erase(static_cast<uint64_t>(handle)));
    if (watch != nullptr) {
        size_t kept = 0;
        for (size_t i = 0; i < watch->count; ++i)
            if (watch->handles[i] != handle) watch->handles[kept++] = watch->handles[i];
        watch->count = kept;
        if (kept == 0) {
            if (watch->due) unlink_due(watch);
            free_watch(watch);
        }
    }
    pthread_mutex_unlock(&lock);
}

int await_events(Event* events, int capacity, int timeoutMillis) {
    epoll_event ready[64];
    int readyCount = 0;
    wait_for_events(timeoutMillis, ready, &readyCount);

    pthread_mutex_lock(&lock);
    for (int i = 0; i < readyCount; ++i) {
        uint64_t id = ready[i].data.u64;
        if (id == kWakeId) {
            uint64_t count;
            ssize_t ignored = read(wake_fd, &count, sizeof count);
            (void)ignored;
        } else if (auto* source = static_cast<Source*>(sources.find(id))) {
            serve(source);
        } else if (auto* watch = static_cast<ProcessWatch*>(watches_by_id.find(id))) {
            make_due(watch);
        } else if (auto* tree = static_cast<TreeWatch*>(tree_watches.find(id))) {
            serve_tree(tree);
        }
    }
    if (unpolled > 0) { // a pass over what the set doesn't hold; rare, so a walk over the tables' values
        watches_by_id.for_each([](void* value) {
            auto* watch = static_cast<ProcessWatch*>(value);
            if (!watch->due && watch->polled && has_ended(watch->entry)) make_due(watch);
        });
        sources.for_each([](void* value) { // serving changes nothing of the table
            auto* source = static_cast<Source*>(value);
            if (source->polled) serve(source);
        });
        TreeWatch* looked[64]; // serve_tree may change the table: collected first, a round's worth
        int count = 0;
        tree_watches.for_each([&](void* value) {
            auto* watch = static_cast<TreeWatch*>(value);
            if (!watch->due && watch->fd < 0 && count < 64) looked[count++] = watch;
        });
        for (int i = 0; i < count; ++i)
            serve_tree(looked[i]);
    }
    int count = report_ended(events, capacity);
    count += report_trees(events + count, capacity - count);
    count += report_sources(events + count, capacity - count);
    pthread_mutex_unlock(&lock);
    return count;
}

void wake_events() {
    pthread_mutex_lock(&lock);
    if (open_set() == 0) wake();
    pthread_mutex_unlock(&lock);
}

int watch_tree(int64_t token, int root) {
    pthread_mutex_lock(&lock);
    int err = open_set();
    auto* watch = err == 0 ? static_cast<TreeWatch*>(calloc(1, sizeof(TreeWatch))) : nullptr;
    bool added = watch != nullptr && tree_watches.insert(static_cast<uint64_t>(token), watch);
    if (added) {
        watch->token = token;
        watch->fd = -1;
        watch->memberFd = -1;
        watch_member(watch, root);
        arm_tree(watch);
        if (trees_due != nullptr || unpolled > 0) wake();
    } else {
        free(watch);
    }
    pthread_mutex_unlock(&lock);
    return added ? PROC_SUCCESS : result_for_errno(err != 0 ? err : ENOMEM, {}, PROC_SYSTEM_ERR);
}

int64_t add_capture(int fd, size_t limit) {
    return add_source(fd, Mode::Capture, limit, nullptr, 0);
}

int64_t add_delivery(int fd) {
    return add_source(fd, Mode::Deliver, 0, nullptr, 0);
}

int64_t add_feed(int fd, const void* input, size_t size) {
    return add_source(fd, Mode::Feed, 0, input, size);
}

bool take_chunk(int64_t token, char** data, size_t* size, bool* end) {
    pthread_mutex_lock(&lock);
    Source* source = source_of(token);
    bool taken = source != nullptr && source->mode == Mode::Deliver && source->waiting;
    if (taken) {
        *data = source->data;
        *size = source->size;
        *end = source->data == nullptr && source->fd < 0;
        source->data = nullptr;
        source->size = 0;
        source->waiting = source->fd < 0; // the end stays to be taken again
    }
    pthread_mutex_unlock(&lock);
    return taken;
}

void return_chunk(int64_t token, char* data, size_t size) {
    pthread_mutex_lock(&lock);
    Source* source = source_of(token);
    if (source != nullptr && source->mode == Mode::Deliver && source->data == nullptr) {
        source->data = data;
        source->size = size;
        source->waiting = true;
        make_pending(source);
        wake();
        data = nullptr;
    }
    pthread_mutex_unlock(&lock);
    free(data); // the source went meanwhile
}

void resume_delivery(int64_t token, bool discard) {
    pthread_mutex_lock(&lock);
    Source* source = source_of(token);
    if (source != nullptr && source->mode == Mode::Deliver && !source->waiting) {
        source->discarding |= discard;
        arm(source);
    }
    pthread_mutex_unlock(&lock);
}

bool take_capture(int64_t token, char** data, size_t* size, uint64_t* dropped) {
    pthread_mutex_lock(&lock);
    Source* source = source_of(token);
    bool taken = source != nullptr && source->mode == Mode::Capture && source->fd < 0;
    if (taken) {
        *data = source->data;
        *size = source->size;
        *dropped = source->dropped;
        source->data = nullptr;
        source->size = 0;
    }
    pthread_mutex_unlock(&lock);
    return taken;
}

void cancel_source(int64_t token) {
    pthread_mutex_lock(&lock);
    Source* source = source_of(token);
    if (source != nullptr && source->fd >= 0) {
        end_source(source);
        unlink_pending(source); // the canceller knows
    }
    pthread_mutex_unlock(&lock);
}

void release_source(int64_t token) {
    pthread_mutex_lock(&lock);
    auto* source = static_cast<Source*>(sources.erase(static_cast<uint64_t>(token)));
    if (source != nullptr) {
        disarm(source);
        if (source->fd >= 0) close(source->fd);
        unlink_pending(source);
        free(source->data);
        free(source);
    }
    pthread_mutex_unlock(&lock);
}
