// Supervision's own pieces: records behind live handles, the entries that every record on one process
// shares, and what the natives and the launch need of them.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <sys/resource.h>

#include "quillon/supervision.h"
#include "runtime/support.h"

// The longest nap of a timed wait that can't be woken by the end of the process.
constexpr unsigned SLEEP_INTERVAL = 2;
// Milliseconds of a timed wait without limit.
constexpr int64_t kForever = -1;

// The PID text parsed with atoi, as every use does.
inline int record_pid(const UnixProcessData* data) {
    return atoi(data->pid);
}

// Fields that natives read without a lock are written under it; these keep both sides untorn.
inline int32_t load_field(const int32_t& field) {
    return std::atomic_ref<int32_t>(const_cast<int32_t&>(field)).load();
}
inline uint32_t load_field(const uint32_t& field) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(field)).load();
}
inline void store_field(int32_t& field, int32_t value) {
    std::atomic_ref<int32_t>(field).store(value);
}
inline void store_field(uint32_t& field, uint32_t value) {
    std::atomic_ref<uint32_t>(field).store(value);
}

// ---- Records and handles ----

// A zero-filled record with its mutexes ready, from malloc; null when memory ran out.
UnixProcessData* new_record();
// unix_doneWithProcess and free, for a record no handle names.
void destroy_record(UnixProcessData* data);
// Gives the record a handle that no other record had in the life of the process; 0 when memory ran out.
int64_t register_record(UnixProcessData* data);
// Ends the handle: later lookups fail, and the record goes once no call uses it. False for a handle
// that names no live record.
bool retire_record(int64_t handle);

// The record of a live handle, kept alive while the reference lasts; empty for any other number.
class RecordRef : NoCopy {
  public:
    explicit RecordRef(int64_t handle);
    ~RecordRef();
    explicit operator bool() const { return data_ != nullptr; }
    UnixProcessData* get() const { return data_; }
    UnixProcessData* operator->() const { return data_; }

  private:
    UnixProcessData* data_;
};

// waiterCount under waiterMutex; the fall to 0 wakes those who wait for it.
void change_waiters(UnixProcessData* data, int delta);
void await_no_waiters(UnixProcessData* data);

// ---- Process entries ----

// Gives a record that was neither launched nor adopted its entry at the first look (once, whatever the
// number of threads looking).
int ensure_entry(UnixProcessData* data, int* sysErr);
// The record's entry: null until it has one, and never changed after that until done.
inline ProcessEntry* entry_of(const UnixProcessData* data) {
    return std::atomic_ref<ProcessEntry*>(const_cast<ProcessEntry*&>(data->process)).load(std::memory_order_acquire);
}
// Gives a launched record its entry (the launch knows the process is new), with the pidfd the launch
// opened for it (none: it is followed by its PID) and its watchdog registration (0: none), which the entry
// takes back at the process's end. Both are taken (left empty) on success; false when memory ran out, and
// both stay the caller's.
bool attach_launched_entry(UnixProcessData* data, int pid, UniqueFd& pidfd, uint64_t& watchdogToken);
// The entry of an adopted record: the one other records on that process share, else a new one.
// Null when memory ran out.
ProcessEntry* entry_for_adoption(int pid);
void retain_entry(ProcessEntry* entry);
void release_entry(ProcessEntry* entry);

// What the collection of a child's end gave, as waitpid would: the PID once the status is stored in the
// entry (by this call or an earlier one), 0 while the child runs, -1 with err otherwise (ECHILD: no
// child of ours).
struct Collection {
    int waitResult;
    int err;
};
// Without blocking. The reap and the storing of the status are one step under the entry's lock, so no
// record ever sees the child gone without its status.
Collection collect_child(ProcessEntry* entry);
// Blocks until the child has ended, then collects it.
Collection await_and_collect_child(ProcessEntry* entry);

// Whether a process that is no child of ours lives, as kill with signal 0 tells it: 0, or -1 with err.
// A process that has ended but not yet been reaped by its parent counts as gone (ESRCH).
struct Observation {
    int result;
    int err;
};
Observation observe_non_child(ProcessEntry* entry);

bool entry_ended(const ProcessEntry* entry);
int entry_exit_code(const ProcessEntry* entry);
int entry_signal(const ProcessEntry* entry);
int entry_pidfd(const ProcessEntry* entry);
// What a child that has ended used, from its reap: false for any other process.
bool entry_usage(const ProcessEntry* entry, rusage* usage);
// Blocks up to `millis` (kForever: no limit) or until the process ends, whichever comes first; without
// a pidfd it naps for the whole time.
void await_end(ProcessEntry* entry, int64_t millis);
// Sends a signal to the process itself and never to one that reuses its PID: 0 or the errno.
int signal_process(ProcessEntry* entry, int pid, int signal);

// Waits up to `millis` (kForever: no limit) for the end; the body of every timed wait.
int wait_with_timeout(UnixProcessData* data, int64_t millis, int* sysErr);
