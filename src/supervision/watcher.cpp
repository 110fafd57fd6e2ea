// One epoll set over the pidfds of watched processes. Processes without a pidfd are looked at every
// tenth of a second instead.
#include "supervision/watcher.h"

#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include "quillon/result_codes.h"
#include "runtime/support.h"
#include "supervision/supervision_internal.h"

namespace {
constexpr int kFallbackMillis = 100;

struct Watch {
    int64_t handle; // kReapOnly: the child is collected, nobody is told
    ProcessEntry* entry; // a reference of its own
    bool due;
    Watch* next;
};

pthread_mutex_t watch_lock = PTHREAD_MUTEX_INITIALIZER;
Watch* watches = nullptr;
int epoll_fd = -1;
int wake_fd = -1; // an eventfd in the set: a watch that is due at once wakes the waiter
int unpolled = 0; // watches without a pidfd

// The caller holds watch_lock.
int open_set() {
    if (epoll_fd >= 0) return 0;
    UniqueFd set(epoll_create1(EPOLL_CLOEXEC));
    UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;
    if (set.get() < 0 || wake.get() < 0 || epoll_ctl(set.get(), EPOLL_CTL_ADD, wake.get(), &event) != 0) return errno;
    epoll_fd = set.release(); // for the life of the process
    wake_fd = wake.release();
    return 0;
}

const Watch* watch_of(const ProcessEntry* entry) {
    for (const Watch* w = watches; w != nullptr; w = w->next)
        if (w->entry == entry) return w;
    return nullptr;
}

// Unlinks and frees the watch; the set forgets a pidfd no other watch needs. The caller holds watch_lock.
void drop(Watch** link) {
    Watch* watch = *link;
    *link = watch->next;
    int pidfd = entry_pidfd(watch->entry);
    if (pidfd < 0)
        --unpolled;
    else if (!watch->due && watch_of(watch->entry) == nullptr)
        epoll_ctl(epoll_fd, EPOLL_CTL_DEL, pidfd, nullptr);
    release_entry(watch->entry);
    free(watch);
}

void mark_due(const ProcessEntry* entry) {
    for (Watch* w = watches; w != nullptr; w = w->next)
        if (w->entry == entry) w->due = true;
}

// Looks at the process: a child is collected (reaped, its status stored), anything else observed. Whatever
// becomes of the report afterwards, an ended child never stays a zombie.
bool has_ended(ProcessEntry* entry) {
    Collection collected = collect_child(entry);
    if (collected.waitResult == -1 && collected.err == ECHILD) observe_non_child(entry);
    return entry_ended(entry);
}
} // namespace

int watch_record(int64_t handle, UnixProcessData* data, int* sysErr) {
    int result = ensure_entry(data, sysErr);
    if (result != PROC_SUCCESS) return result;
    pthread_mutex_lock(&watch_lock);
    int err = open_set();
    auto* watch = err == 0 ? static_cast<Watch*>(malloc(sizeof(Watch))) : nullptr;
    if (watch == nullptr) {
        pthread_mutex_unlock(&watch_lock);
        *sysErr = err != 0 ? err : ENOMEM;
        return result_for_errno(*sysErr, {}, PROC_SYSTEM_ERR);
    }
    ProcessEntry* entry = entry_of(data);
    retain_entry(entry);
    const Watch* sibling = watch_of(entry); // a pidfd is in the set once, for all watches of its process
    *watch = {handle, entry, entry_ended(entry) || (sibling != nullptr && sibling->due), watches};
    int pidfd = entry_pidfd(entry);
    if (pidfd < 0) {
        ++unpolled;
    } else if (!watch->due && sibling == nullptr) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = entry;
        epoll_ctl(epoll_fd, EPOLL_CTL_ADD, pidfd, &event);
    }
    watches = watch;
    if (watch->due || pidfd < 0) {
        uint64_t one = 1;
        ssize_t ignored = write(wake_fd, &one, sizeof one);
        (void)ignored;
    }
    pthread_mutex_unlock(&watch_lock);
    *sysErr = 0;
    return PROC_SUCCESS;
}

int await_ended(int64_t* ended, int capacity, int timeoutMillis) {
    pthread_mutex_lock(&watch_lock);
    open_set(); // without it, the first watch could not wake a waiter that came before it
    int set = epoll_fd;
    bool anyDue = false;
    for (const Watch* w = watches; w != nullptr; w = w->next)
        anyDue = anyDue || w->due;
    int timeout = anyDue ? 0 : timeoutMillis;
    if (unpolled > 0 && (timeout < 0 || timeout > kFallbackMillis)) timeout = kFallbackMillis;
    pthread_mutex_unlock(&watch_lock);

    epoll_event events[64];
    int ready = 0;
    if (set >= 0) {
        ready = epoll_wait(set, events, 64, timeout);
    } else if (timeout != 0) { // no set: the system refused one; look again later
        poll(nullptr, 0, timeout < 0 || timeout > kFallbackMillis ? kFallbackMillis : timeout);
    }

    pthread_mutex_lock(&watch_lock);
    for (int i = 0; i < ready; ++i) {
        auto* entry = static_cast<ProcessEntry*>(events[i].data.ptr);
        if (entry == nullptr) {
            uint64_t count;
            ssize_t ignored = read(wake_fd, &count, sizeof count);
            (void)ignored;
            continue;
        }
        epoll_ctl(epoll_fd, EPOLL_CTL_DEL, entry_pidfd(entry), nullptr);
        mark_due(entry);
    }
    for (Watch* w = watches; w != nullptr; w = w->next)
        if (!w->due && entry_pidfd(w->entry) < 0 && has_ended(w->entry)) w->due = true;
    int count = 0;
    for (Watch** link = &watches; *link != nullptr && count < capacity;) {
        if ((*link)->due) {
            has_ended((*link)->entry);
            if ((*link)->handle != kReapOnly) ended[count++] = (*link)->handle;
            drop(link);
        } else {
            link = &(*link)->next;
        }
    }
    pthread_mutex_unlock(&watch_lock);
    return count;
}

void forget_watches(int64_t handle) {
    pthread_mutex_lock(&watch_lock);
    for (Watch** link = &watches; *link != nullptr;) {
        if ((*link)->handle == handle)
            drop(link);
        else
            link = &(*link)->next;
    }
    pthread_mutex_unlock(&watch_lock);
}
