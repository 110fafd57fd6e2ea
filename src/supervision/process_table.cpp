// One entry per followed process, shared by all its records: its pidfd, and how it ended once that has
// been seen. Entries of processes whose end is not yet seen are indexed by PID, so that adopting a PID
// finds the entry the launch made.
#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>
#include <new>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "containment/containment.h"
#include "runtime/support.h"
#include "supervision/id_table.h"
#include "runtime/pidfd.h"
#include "supervision/supervision_internal.h"

struct ProcessEntry {
    int pid;
    UniqueFd pidfd;       // none: followed by its PID alone
    pthread_mutex_t lock; // reaping the child and storing its status are one step under it
    std::atomic<bool> ended;
    int exitCode;   // exit status, or the number of the ending signal
    int signal;     // the ending signal; 0 after an exit or when the end was only seen, not collected
    unsigned refs;  // under table_lock
    bool indexed;   // under table_lock: live_entries holds it
    uint64_t watchdogToken; // its registration with the watchdog, taken back at its end; 0 for none
    bool usageKnown;        // a child: what it used, from its reap
    rusage usage;
    // waitid said ECHILD once: no child of ours, and never waited for by its PID again, which one of our
    // children may hold by then.
    std::atomic<bool> notChild;
};

namespace {
pthread_mutex_t table_lock = PTHREAD_MUTEX_INITIALIZER;
IdTable live_entries; // PID -> the entry of the process that has it, until its end is seen

void unindex(ProcessEntry* entry) {
    pthread_mutex_lock(&table_lock);
    if (entry->indexed && live_entries.find(static_cast<uint64_t>(entry->pid)) == entry)
        live_entries.erase(static_cast<uint64_t>(entry->pid));
    entry->indexed = false;
    pthread_mutex_unlock(&table_lock);
}

// The caller holds entry->lock.
void mark_ended(ProcessEntry* entry, int exitCode, int signal) {
    if (entry->ended) return;
    entry->exitCode = exitCode;
    entry->signal = signal;
    entry->ended = true;
    unindex(entry);
    if (entry->watchdogToken != 0) watchdog_forget(entry->watchdogToken); // nothing left to kill at the end
    entry->watchdogToken = 0;
}

void mark_seen_gone(ProcessEntry* entry) {
    pthread_mutex_lock(&entry->lock);
    mark_ended(entry, 0, 0);
    pthread_mutex_unlock(&entry->lock);
}

constexpr int kOpenPidfd = -2;

// An entry with the pidfd given (-1: none, the process is followed by its PID), or with one of its own for
// kOpenPidfd: none either when the process is gone already (reaped by its parent).
ProcessEntry* make_entry(int pid, int pidfd) {
    UniqueFd given(pidfd);
    void* block = malloc(sizeof(ProcessEntry));
    if (block == nullptr) return nullptr;
    auto* entry = new (block) ProcessEntry{};
    entry->pid = pid;
    entry->refs = 1;
    pthread_mutex_init(&entry->lock, nullptr);
    entry->pidfd.reset(pidfd == kOpenPidfd ? pidfd_or_trace(pid) : given.release());
    if (entry->pidfd.get() == -1 && pidfd == kOpenPidfd && errno == ESRCH) entry->ended = true;
    return entry;
}

void destroy_entry(ProcessEntry* entry) {
    if (entry->watchdogToken != 0) watchdog_forget(entry->watchdogToken); // dropped before its end was seen
    pthread_mutex_destroy(&entry->lock);
    entry->~ProcessEntry();
    free(entry);
}

// waitid on the process of the entry, by pidfd where the kernel takes one (5.4 and later).
// The kernel's waitid, which also gives what a reaped child used (the C library's leaves that out).
int waitid_with_usage(idtype_t type, id_t id, siginfo_t* info, int options, rusage* usage) {
    return static_cast<int>(syscall(SYS_waitid, type, id, info, options, usage));
}

// waitid on the process of the entry, by pidfd where the kernel takes one (5.4 and later).
int wait_for(const ProcessEntry* entry, siginfo_t* info, int options, rusage* usage = nullptr) {
    if (entry->pidfd.get() >= 0) {
        int result = retry_on_eintr([&] {
            return waitid_with_usage(P_PIDFD, static_cast<id_t>(entry->pidfd.get()), info, options, usage);
        });
        if (result == 0 || errno != EINVAL) return result;
    }
    return retry_on_eintr(
        [&] { return waitid_with_usage(P_PID, static_cast<id_t>(entry->pid), info, options, usage); });
}

// False when the entry's process is known to have ended, so that its PID may name another by now.
bool still_the_process(const ProcessEntry* entry) {
    if (entry->ended) return false;
    if (entry->pidfd.get() < 0) return true;
    siginfo_t info = {};
    if (wait_for(entry, &info, WEXITED | WNOHANG | WNOWAIT) == 0) return true; // our child, not reaped
    pollfd ready = {entry->pidfd.get(), POLLIN, 0};
    return poll(&ready, 1, 0) == 0;
}
} // namespace

bool attach_launched_entry(UnixProcessData* data, int pid, UniqueFd& pidfd, uint64_t& watchdogToken) {
    ProcessEntry* entry = make_entry(pid, -1);
    if (entry == nullptr) return false;
    entry->pidfd.reset(pidfd.get()); // before it is indexed, where an adoption may look at it
    pthread_mutex_lock(&table_lock);
    // An indexed entry under this PID names a process that ended unseen: ours has the PID now.
    if (auto* old = static_cast<ProcessEntry*>(live_entries.erase(static_cast<uint64_t>(pid))))
        old->indexed = false;
    entry->indexed = live_entries.insert(static_cast<uint64_t>(pid), entry);
    pthread_mutex_unlock(&table_lock);
    if (!entry->indexed) {      // an adoption could not find it: its records would not share one status
        entry->pidfd.release(); // still the caller's
        destroy_entry(entry);
        return false;
    }
    pidfd.release();
    entry->watchdogToken = std::exchange(watchdogToken, 0);
    std::atomic_ref<ProcessEntry*>(data->process).store(entry, std::memory_order_release);
    return true;
}

ProcessEntry* entry_for_adoption(int pid) {
    pthread_mutex_lock(&table_lock);
    auto* found = static_cast<ProcessEntry*>(live_entries.find(static_cast<uint64_t>(pid)));
    if (found != nullptr) ++found->refs;
    pthread_mutex_unlock(&table_lock);
    if (found != nullptr && still_the_process(found)) return found;
    ProcessEntry* entry = make_entry(pid, kOpenPidfd);
    if (found != nullptr) {
        // The process of the entry found has ended. When no other has its PID now, that ended process is
        // the only one the PID can mean, and its entry knows how it ended.
        if (entry != nullptr && entry->ended) {
            destroy_entry(entry);
            return found;
        }
        mark_seen_gone(found);
        release_entry(found);
    }
    if (entry == nullptr || entry->ended) return entry;
    pthread_mutex_lock(&table_lock);
    auto* raced = static_cast<ProcessEntry*>(live_entries.find(static_cast<uint64_t>(pid)));
    if (raced != nullptr)
        ++raced->refs;
    else
        entry->indexed = live_entries.insert(static_cast<uint64_t>(pid), entry);
    pthread_mutex_unlock(&table_lock);
    if (raced == nullptr && entry->indexed) return entry;
    destroy_entry(entry);
    return raced;
}

void release_entry(ProcessEntry* entry) {
    if (entry == nullptr) return;
    pthread_mutex_lock(&table_lock);
    bool last = --entry->refs == 0;
    if (last && entry->indexed && live_entries.find(static_cast<uint64_t>(entry->pid)) == entry)
        live_entries.erase(static_cast<uint64_t>(entry->pid));
    pthread_mutex_unlock(&table_lock);
    if (last) destroy_entry(entry);
}

void retain_entry(ProcessEntry* entry) {
    pthread_mutex_lock(&table_lock);
    ++entry->refs;
    pthread_mutex_unlock(&table_lock);
}

Collection collect_child(ProcessEntry* entry) {
    pthread_mutex_lock(&entry->lock);
    Collection collection = {entry->pid, 0};
    if (!entry->ended) {
        siginfo_t info = {};
        rusage usage = {};
        if (entry->notChild) {
            collection = {-1, ECHILD};
        } else if (wait_for(entry, &info, WEXITED | WNOHANG, &usage) == -1) {
            collection = {-1, errno};
            if (collection.err == ECHILD) entry->notChild = true;
        } else if (info.si_pid == 0) {
            collection = {0, 0};
        } else {
            entry->usage = usage;
            entry->usageKnown = true;
            if (info.si_code == CLD_EXITED)
                mark_ended(entry, info.si_status & 0xff, 0);
            else
                mark_ended(entry, info.si_status & 0x7f, info.si_status & 0x7f);
        }
    }
    pthread_mutex_unlock(&entry->lock);
    return collection;
}

Collection await_and_collect_child(ProcessEntry* entry) {
    siginfo_t info = {};
    if (!entry->ended && !entry->notChild && wait_for(entry, &info, WEXITED | WNOWAIT) == -1 &&
        errno != ECHILD)
        return {-1, errno};
    return collect_child(entry);
}

Observation observe_non_child(ProcessEntry* entry) {
    if (entry->ended) return {-1, ESRCH};
    int result;
    if (entry->pidfd.get() >= 0) {
        pollfd ready = {entry->pidfd.get(), POLLIN, 0};
        if (poll(&ready, 1, 0) == 1) { // ended, perhaps not yet reaped by its parent
            mark_seen_gone(entry);
            return {-1, ESRCH};
        }
        result = retry_on_eintr([&] { return pidfd_signal(entry->pidfd.get(), 0); });
    } else {
        result = retry_on_eintr([&] { return kill(entry->pid, 0); });
    }
    int err = result == 0 ? 0 : errno;
    if (err == ESRCH) mark_seen_gone(entry);
    return {result, err};
}

bool entry_ended(const ProcessEntry* entry) {
    return entry->ended;
}

int entry_exit_code(const ProcessEntry* entry) {
    return entry->exitCode;
}

int entry_signal(const ProcessEntry* entry) {
    return entry->signal;
}

bool entry_usage(const ProcessEntry* entry, rusage* usage) {
    if (!entry->ended || !entry->usageKnown) return false;
    *usage = entry->usage;
    return true;
}

int entry_pidfd(const ProcessEntry* entry) {
    return entry->pidfd.get();
}

void await_end(ProcessEntry* entry, int64_t millis) {
    if (entry->pidfd.get() >= 0) {
        pollfd ready = {entry->pidfd.get(), POLLIN, 0};
        poll(&ready, 1, millis == kForever ? -1 : static_cast<int>(millis));
        return;
    }
    if (millis == kForever) millis = SLEEP_INTERVAL * 1000;
    timespec nap = {static_cast<time_t>(millis / 1000), static_cast<long>(millis % 1000) * 1000000};
    nanosleep(&nap, nullptr);
}

int signal_process(ProcessEntry* entry, int pid, int signal) {
    if (entry != nullptr && entry->ended) return ESRCH; // its PID may name another process by now
    int result = retry_on_eintr([&] {
        return entry != nullptr && entry->pidfd.get() >= 0 ? pidfd_signal(entry->pidfd.get(), signal) : kill(pid, signal);
    });
    return result == 0 ? 0 : errno;
}
