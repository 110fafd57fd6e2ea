// The watchdog: a process of the library's own, one per host process, that kills the registered trees and
// processes when the host ends, whatever the way. It holds one end of a SOCK_SEQPACKET pair and the host
// the other; when the host has ended, the kernel closes the host's end and the watchdog's recvmsg returns
// 0. PR_SET_PDEATHSIG would not do: it fires when the registering thread ends.
//
// It is made like a detached launch, clone(CLONE_VM) twice, so that it passes to init (or the nearest
// subreaper) and is never a zombie of the host; it never execs, so it shares the host's memory all its life
// and runs on a mapping of its own that the host never unmaps while it lives. Its thread pointer is the
// creating thread's, which may end long before it does: it makes raw system calls only and reads no
// thread-local state (THREADLESS_CODE).
//
// The host numbers registrations by slot; a token is (watchdog epoch, slot generation, slot), so a token
// of a forgotten registration, or of an earlier watchdog, names nothing.
//
// A forget never waits. It is called when a process or tree has ended, from under the event thread's lock
// and a process entry's: it is sent without waiting for room in the queue, and one that finds no room is
// dropped. A registration the watchdog keeps for that reason names a pidfd of an ended process or the
// cgroup.kill of a removed group, and acting on it at the host's end does nothing; the next registration
// of the slot replaces it. A forget that finds the host's lock held (a registration waiting for room) is
// noted and carried out by the holder before it lets go.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "containment/containment.h"
#include "launch/raw_syscall.h"

namespace {
// The most registrations one watchdog holds (it holds a descriptor for each, so also fewer: see capacity()).
constexpr unsigned kMaxRegistrations = 65536;
constexpr size_t kStackSize = 64 * 1024;
constexpr size_t kIntermediateStackSize = 64 * 1024;
// A registration waits this long for room in a watchdog's queue (a stopped watchdog), then fails.
constexpr int kSendTimeoutSeconds = 5;
constexpr int kSlotBits = 16;
constexpr int kGenerationBits = 32;

enum Kind : uint32_t { kGroupKill = 1, kProcess = 2 };
enum Operation : uint32_t { kRegister = 1, kForget = 2 };

struct Message {
    uint32_t operation;
    uint32_t kind;
    uint32_t slot;
    uint32_t generation;
};

// A registration as the watchdog holds it; all zero (as a fresh mapping is) is a free slot.
struct Held {
    int fdPlusOne;
    uint32_t kind;
    uint32_t generation;
};

// At the start of the watchdog's mapping, written by the host before the clone and only read by the
// watchdog: [WatchdogStart, table of Held][guard page][stack].
struct WatchdogStart {
    int socket;
    unsigned capacity;
};

union ControlBuffer {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
};

// ---- The watchdog's side: raw system calls only.

THREADLESS_CODE void close_all_but(int keep) {
    rlimit limit;
    bool ranged = (keep == 0 || sys_close_range(0, static_cast<unsigned>(keep) - 1) == 0) &&
                  sys_close_range(static_cast<unsigned>(keep) + 1, ~0u) == 0;
    if (ranged || sys_prlimit(RLIMIT_NOFILE, nullptr, &limit) != 0) return;
    for (rlim_t fd = 0; fd < limit.rlim_cur && fd < (1u << 20); ++fd) // a kernel before 5.9: one by one
        if (static_cast<int>(fd) != keep) sys_close(static_cast<int>(fd));
}

// Out of the host's session (no terminal signal reaches it), deaf to every signal that can be caught,
// named, in the root directory (it holds no mount busy), with room for a descriptor per registration.
THREADLESS_CODE void settle(int socket) {
    close_all_but(socket);
    sys_setsid();
    for (int signal = 1; signal < NSIG; ++signal)
        if (signal != SIGKILL && signal != SIGSTOP) sys_set_disposition(signal, SIG_IGN, false);
    uint64_t none = 0; // the kernel's mask is 64 bits
    sys_set_signal_mask(reinterpret_cast<const sigset_t*>(&none));
    sys_set_name("quillon-watch");
    sys_chdir("/");
    rlimit limit;
    if (sys_prlimit(RLIMIT_NOFILE, nullptr, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        sys_prlimit(RLIMIT_NOFILE, &limit, nullptr);
    }
}

// The next message, with the descriptor it carries (or -1): its length, 0 when the host's end has closed,
// or -errno.
THREADLESS_CODE long receive(int socket, Message* message, int* fd) {
    ControlBuffer control;
    control.header.cmsg_len = 0;
    iovec part;
    part.iov_base = message;
    part.iov_len = sizeof *message;
    msghdr header;
    header.msg_name = nullptr;
    header.msg_namelen = 0;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof control.bytes;
    header.msg_flags = 0;
    *fd = -1;
    long length = sys_recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    if (length > 0 && header.msg_controllen >= CMSG_LEN(sizeof(int)) &&
        control.header.cmsg_level == SOL_SOCKET && control.header.cmsg_type == SCM_RIGHTS) {
        const int* carried = reinterpret_cast<const int*>(CMSG_DATA(&control.header));
        *fd = *carried;
    }
    return length;
}

THREADLESS_CODE void release(Held* held) {
    if (held->fdPlusOne != 0) sys_close(held->fdPlusOne - 1);
    held->fdPlusOne = 0;
}

// Takes one message into the table; `*used` is one past the highest slot ever filled.
THREADLESS_CODE void take(const Message& message, long length, int fd, Held* table, unsigned capacity,
                          unsigned* used) {
    bool valid = length == static_cast<long>(sizeof message) && message.slot < capacity;
    if (valid && message.operation == kRegister && fd >= 0) {
        Held* held = &table[message.slot];
        release(held);
        held->fdPlusOne = fd + 1;
        held->kind = message.kind;
        held->generation = message.generation;
        if (message.slot >= *used) *used = message.slot + 1;
        return;
    }
    if (fd >= 0) sys_close(fd);
    if (valid && message.operation == kForget && table[message.slot].generation == message.generation)
        release(&table[message.slot]);
}

THREADLESS_CODE void kill_registered(const Held* table, unsigned used) {
    for (unsigned slot = 0; slot < used; ++slot) {
        const Held& held = table[slot];
        if (held.fdPlusOne == 0) continue;
        if (held.kind == kGroupKill)
            sys_write(held.fdPlusOne - 1, "1", 1);
        else
            sys_pidfd_send_signal(held.fdPlusOne - 1, SIGKILL);
    }
}

THREADLESS_CODE int watchdog_main(void* argument) {
    const auto* start = static_cast<const WatchdogStart*>(argument);
    int socket = start->socket;
    unsigned capacity = start->capacity;
    auto* table = reinterpret_cast<Held*>(const_cast<WatchdogStart*>(start) + 1);
    settle(socket);
    unsigned used = 0;
    for (;;) {
        Message message;
        int fd;
        long length = receive(socket, &message, &fd);
        if (length == 0) break; // the host has ended
        if (length > 0)
            take(message, length, fd, table, capacity, &used);
        else if (length != -EINTR)
            sys_nanosleep(10); // out of memory for the moment: no spin
    }
    kill_registered(table, used);
    sys_exit(0);
}

// What the intermediate process tells the host in their shared memory. Its exit status can't carry it:
// with SIGCHLD ignored the host's waitpid finds no status (ECHILD), and a signal can end it after its clone.
constexpr int kCloneUnknown = -1;
struct IntermediateStart {
    void* watchdogStack;
    void* watchdogStart;
    int cloneErr; // kCloneUnknown until the intermediate's clone returned, then 0 or its errno
};

// Makes the watchdog and ends, so that the watchdog passes to init. It runs while the host thread waits for
// it, so that thread's errno is safe to read.
NEW_PROCESS_CODE int intermediate_main(void* argument) {
    auto* start = static_cast<IntermediateStart*>(argument);
    pid_t pid = clone(watchdog_main, start->watchdogStack, CLONE_VM | SIGCHLD, start->watchdogStart);
    int err = pid != -1 ? 0 : errno > 0 ? errno : EAGAIN;
    __atomic_store_n(&start->cloneErr, err, __ATOMIC_RELEASE);
    sys_exit(err < 256 ? err : EAGAIN);
}

// ---- The host's side, under host_lock.

struct Slot {
    uint32_t generation;
    bool used;
};

struct Host {
    int socket = -1;         // the host's end; -1 before the first registration or after the watchdog died
    pid_t owner = 0;         // the process the watchdog watches
    char* mapping = nullptr; // the watchdog's, never unmapped while it may run
    size_t mappingSize = 0;
    unsigned capacity = 0;
    Slot* slots = nullptr;     // capacity of them
    unsigned fresh = 0;        // slots [fresh, capacity) were never handed out
    uint32_t* freed = nullptr; // slots handed back
    unsigned freedCount = 0;
    uint16_t epoch = 0;
};

pthread_mutex_t host_lock = PTHREAD_MUTEX_INITIALIZER;
Host host;
pthread_once_t fork_handlers_once = PTHREAD_ONCE_INIT;

// Forgets that found host_lock held, for its holder to carry out. Never held across a blocking call.
pthread_mutex_t noted_lock = PTHREAD_MUTEX_INITIALIZER;
uint64_t* noted = nullptr;
size_t notedCount = 0;
size_t notedCapacity = 0;

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t round_to_pages(size_t bytes) {
    return (bytes + page_size() - 1) / page_size() * page_size();
}

size_t table_bytes(unsigned capacity) {
    return round_to_pages(sizeof(WatchdogStart) + capacity * sizeof(Held));
}

// One descriptor per registration, and the watchdog's own socket.
unsigned capacity() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max == RLIM_INFINITY) return kMaxRegistrations;
    if (limit.rlim_max <= 1) return 0;
    return limit.rlim_max - 1 < kMaxRegistrations ? static_cast<unsigned>(limit.rlim_max - 1)
                                                  : kMaxRegistrations;
}

// Forgets the watchdog's state: `unmap` once the watchdog can no longer run on its mapping. Registrations
// made to it are lost.
void drop_watchdog(bool unmap) {
    if (host.socket >= 0) close(host.socket);
    if (unmap && host.mapping != nullptr) munmap(host.mapping, host.mappingSize);
    free(host.slots);
    free(host.freed);
    uint16_t epoch = host.epoch; // tokens of this watchdog stay apart from the next one's
    host = Host{};
    host.epoch = epoch;
}

// A child made by fork holds a copy of the host's end: it closes it, or the parent's watchdog would wait
// for this child to end too. Its copy of the watchdog's mapping is its own, and goes.
void lock_for_fork() {
    pthread_mutex_lock(&host_lock);
    pthread_mutex_lock(&noted_lock);
}
void unlock_after_fork() {
    pthread_mutex_unlock(&noted_lock);
    pthread_mutex_unlock(&host_lock);
}
void forget_in_child() {
    drop_watchdog(true);
    notedCount = 0; // they named the parent's watchdog
    pthread_mutex_unlock(&noted_lock);
    pthread_mutex_unlock(&host_lock);
}

// clone with every signal blocked, so that no handler of the host runs in the new processes before the
// watchdog has set its own dispositions.
pid_t clone_blocked(int (*main)(void*), void* stackTop, void* argument) {
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pid_t pid = clone(main, stackTop, CLONE_VM | SIGCHLD, argument);
    int err = errno;
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    errno = err;
    return pid;
}

// Makes the watchdog through an intermediate process: 0, or the errno of a clone that failed, when no
// watchdog runs on the mapping. When it can't be told whether the intermediate made one (it was killed
// around its clone), it counts as made: the mapping stays, and a send that finds nobody at the other end
// (EPIPE) drops it then, when no watchdog can run on it any more.
int spawn_watchdog(char* mapping, size_t tableSize) {
    size_t page = page_size();
    void* intermediateStack = mmap(nullptr, kIntermediateStackSize, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (intermediateStack == MAP_FAILED) return errno;
    if (mprotect(mapping + tableSize, page, PROT_NONE) != 0) { // the guard between stack and table
        int err = errno;
        munmap(intermediateStack, kIntermediateStackSize);
        return err;
    }
    IntermediateStart start = {mapping + tableSize + page + kStackSize, mapping, kCloneUnknown};
    pid_t pid = clone_blocked(intermediate_main,
                              static_cast<char*>(intermediateStack) + kIntermediateStackSize, &start);
    if (pid == -1) {
        int err = errno;
        munmap(intermediateStack, kIntermediateStackSize); // it never ran
        return err;
    }
    // ECHILD: SIGCHLD is ignored, or another thread reaped it; either way it has ended.
    bool ended = retry_on_eintr([&] { return waitpid(pid, nullptr, 0); }) == pid || errno == ECHILD;
    if (ended) munmap(intermediateStack, kIntermediateStackSize); // else left, as it might still run on it
    int cloneErr = __atomic_load_n(&start.cloneErr, __ATOMIC_ACQUIRE);
    return cloneErr > 0 ? cloneErr : 0;
}

// A watchdog for this process: 0 or an errno.
int start_watchdog() {
    pthread_once(&fork_handlers_once,
                 [] { pthread_atfork(lock_for_fork, unlock_after_fork, forget_in_child); });
    unsigned slotCount = capacity();
    if (slotCount == 0) return EMFILE;
    MallocPtr<Slot> slots(static_cast<Slot*>(calloc(slotCount, sizeof(Slot))));
    MallocPtr<uint32_t> freed(static_cast<uint32_t*>(malloc(slotCount * sizeof(uint32_t))));
    if (slots == nullptr || freed == nullptr) return ENOMEM;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return errno;
    UniqueFd hostEnd(move_above_standard(ends[0])), watchdogEnd(move_above_standard(ends[1]));
    if (hostEnd.get() < 0 || watchdogEnd.get() < 0) return errno;
    timeval timeout = {kSendTimeoutSeconds, 0};
    if (setsockopt(hostEnd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) return errno;

    size_t tableSize = table_bytes(slotCount);
    size_t mappingSize = tableSize + page_size() + kStackSize;
    void* mapping = mmap(nullptr, mappingSize, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) return errno;
    auto* start = static_cast<WatchdogStart*>(mapping);
    start->socket = watchdogEnd.get();
    start->capacity = slotCount;
    int err = spawn_watchdog(static_cast<char*>(mapping), tableSize);
    if (err != 0) {
        munmap(mapping, mappingSize); // its clone failed: no watchdog runs on it
        return err;
    }
    host.socket = hostEnd.release();
    host.owner = getpid();
    host.mapping = static_cast<char*>(mapping);
    host.mappingSize = mappingSize;
    host.capacity = slotCount;
    host.slots = slots.release();
    host.freed = freed.release();
    host.fresh = 0;
    host.freedCount = 0;
    ++host.epoch;
    return 0;
}

// Errors of a send that mean the watchdog's end has closed: the watchdog has ended.
bool watchdog_gone(int err) {
    return err == EPIPE || err == ECONNRESET || err == ECONNREFUSED || err == ENOTCONN;
}

// 0 or the errno of the send; `flags` beside MSG_NOSIGNAL.
int send_message(const Message& message, int fd, int flags = 0) {
    iovec part = {const_cast<Message*>(&message), sizeof message};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    ControlBuffer control = {};
    if (fd >= 0) {
        header.msg_control = control.bytes;
        header.msg_controllen = sizeof control.bytes;
        control.header.cmsg_level = SOL_SOCKET;
        control.header.cmsg_type = SCM_RIGHTS;
        control.header.cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(&control.header), &fd, sizeof fd);
    }
    ssize_t sent = retry_on_eintr([&] { return sendmsg(host.socket, &header, MSG_NOSIGNAL | flags); });
    return sent == static_cast<ssize_t>(sizeof message) ? 0 : sent < 0 ? errno : EIO;
}

uint64_t token_of(unsigned slot, uint32_t generation) {
    return static_cast<uint64_t>(host.epoch) << (kSlotBits + kGenerationBits) |
           static_cast<uint64_t>(generation) << kSlotBits | slot;
}

// A free slot, or false when all are taken.
bool take_slot(unsigned* slot) {
    if (host.freedCount > 0)
        *slot = host.freed[--host.freedCount];
    else if (host.fresh < host.capacity)
        *slot = host.fresh++;
    else
        return false;
    return true;
}

void give_back(unsigned slot) {
    host.slots[slot].used = false;
    host.freed[host.freedCount++] = slot;
}

// A registration with the live watchdog: a token, or 0 with `*err`.
uint64_t register_once(Kind kind, int fd, int* err) {
    unsigned slot;
    if (!take_slot(&slot)) {
        *err = ENOSPC;
        return 0;
    }
    Slot& entry = host.slots[slot];
    if (++entry.generation == 0) entry.generation = 1; // no token is 0
    entry.used = true;
    *err = send_message({kRegister, kind, slot, entry.generation}, fd);
    if (*err == 0) return token_of(slot, entry.generation);
    give_back(slot);
    return 0;
}

// Takes a registration back, under host_lock: its slot is free at once; the watchdog is told if its queue has
// room (see the top of this file).
void forget_held(uint64_t token) {
    auto slot = static_cast<unsigned>(token & ((1u << kSlotBits) - 1));
    auto generation = static_cast<uint32_t>(token >> kSlotBits);
    auto epoch = static_cast<uint16_t>(token >> (kSlotBits + kGenerationBits));
    if (host.socket >= 0 && host.owner == getpid() && epoch == host.epoch && slot < host.fresh &&
        host.slots[slot].used && host.slots[slot].generation == generation) {
        give_back(slot);
        // EAGAIN: dropped; a watchdog that is gone has nothing to forget.
        send_message({kForget, 0, slot, generation}, -1, MSG_DONTWAIT);
    }
}

// Notes a forget for the holder of host_lock: false when memory ran out.
bool note_forget(uint64_t token) {
    pthread_mutex_lock(&noted_lock);
    bool room = notedCount < notedCapacity;
    if (!room) {
        size_t bigger = notedCapacity == 0 ? 64 : notedCapacity * 2;
        auto* grown = static_cast<uint64_t*>(realloc(noted, bigger * sizeof(uint64_t)));
        if (grown != nullptr) {
            noted = grown;
            notedCapacity = bigger;
            room = true;
        }
    }
    if (room) noted[notedCount++] = token;
    pthread_mutex_unlock(&noted_lock);
    return room;
}

// Carries out the noted forgets and lets go of host_lock.
void unlock_host() {
    for (;;) {
        pthread_mutex_lock(&noted_lock);
        uint64_t token = notedCount > 0 ? noted[--notedCount] : 0;
        pthread_mutex_unlock(&noted_lock);
        if (token == 0) break;
        forget_held(token);
    }
    pthread_mutex_unlock(&host_lock);
}

uint64_t register_descriptor(Kind kind, int fd) {
    if (fd < 0) {
        errno = EBADF;
        return 0;
    }
    pthread_mutex_lock(&host_lock);
    if (host.socket >= 0 && host.owner != getpid())
        drop_watchdog(true); // made by a fork without the handlers
    uint64_t token = 0;
    int err = 0;
    for (int attempt = 0; attempt < 2 && token == 0; ++attempt) {
        err = host.socket < 0 ? start_watchdog() : 0;
        if (err != 0) break;
        token = register_once(kind, fd, &err);
        // The watchdog was killed: a new one takes this registration and the next ones; those made to the
        // dead one are lost. Its mapping can go, since the end it held closes only once its memory is let go.
        if (token == 0 && watchdog_gone(err))
            drop_watchdog(true);
        else if (token == 0)
            break;
    }
    unlock_host();
    if (token == 0) errno = err;
    return token;
}
} // namespace

uint64_t watchdog_register_group(int killFd) {
    return register_descriptor(kGroupKill, killFd);
}

uint64_t watchdog_register_process(int pidfd) {
    return register_descriptor(kProcess, pidfd);
}

void watchdog_forget(uint64_t token) {
    if (token == 0) return;
    if (pthread_mutex_trylock(&host_lock) != 0) {
        // A registration holds it, perhaps waiting for room: it carries this out before it lets go. Should
        // it have looked just before, the lock is tried once more; else the next holder does it.
        if (note_forget(token)) {
            if (pthread_mutex_trylock(&host_lock) == 0) unlock_host();
            return;
        }
        pthread_mutex_lock(&host_lock); // no memory to note it: the one case that waits
    }
    forget_held(token);
    unlock_host();
}
