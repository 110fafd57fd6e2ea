// Records behind handles. A handle is a number that names one record for the life of the process: the
// registry tells live handles from 0, from released ones and from any other number, and a record stays
// until no call uses it, so `done` on one thread never pulls a record from under another.
#include <cstring>

#include "runtime/support.h"
#include "supervision/id_table.h"
#include "supervision/supervision_internal.h"
#include "supervision/events.h"

namespace {
struct ManagedRecord {
    UnixProcessData data; // first: the record's address is the block's
    unsigned refs;        // calls using it, under registry_lock
    bool retired;         // its handle was given to done
};

HandleRegistry live_records;

ManagedRecord* managed(UnixProcessData* data) {
    return reinterpret_cast<ManagedRecord*>(data);
}

void release(UnixProcessData* data) {
    ManagedRecord* record = managed(data);
    if (live_records.locked([&](IdTable&) { return --record->refs == 0 && record->retired; })) destroy_record(data);
}
} // namespace

UnixProcessData* new_record() {
    auto* record = static_cast<ManagedRecord*>(malloc(sizeof(ManagedRecord)));
    if (record == nullptr) return nullptr;
    memset(record, 0, sizeof *record);
    pthread_mutex_init(&record->data.stateMutex, nullptr);
    pthread_mutex_init(&record->data.waiterMutex, nullptr);
    pthread_cond_init(&record->data.waitersGone, nullptr);
    return &record->data;
}

void destroy_record(UnixProcessData* data) {
    unix_doneWithProcess(data, nullptr);
    pthread_cond_destroy(&data->waitersGone);
    free(managed(data));
}

int64_t register_record(UnixProcessData* data) {
    return static_cast<int64_t>(live_records.add(data));
}

bool retire_record(int64_t handle) {
    forget_watches(handle);
    bool destroy = false;
    auto* data = live_records.locked([&](IdTable& table) {
        auto* found = static_cast<UnixProcessData*>(table.erase(static_cast<uint64_t>(handle)));
        if (found != nullptr) {
            managed(found)->retired = true;
            destroy = managed(found)->refs == 0;
        }
        return found;
    });
    if (destroy) destroy_record(data);
    return data != nullptr;
}

RecordRef::RecordRef(int64_t handle) {
    data_ = live_records.locked([handle](IdTable& table) {
        auto* found = static_cast<UnixProcessData*>(table.find(static_cast<uint64_t>(handle)));
        if (found != nullptr) ++managed(found)->refs;
        return found;
    });
}

RecordRef::~RecordRef() {
    if (data_ != nullptr) release(data_);
}

void change_waiters(UnixProcessData* data, int delta) {
    pthread_mutex_lock(&data->waiterMutex);
    store_field(data->waiterCount, load_field(data->waiterCount) + delta);
    if (data->waiterCount == 0) pthread_cond_broadcast(&data->waitersGone);
    pthread_mutex_unlock(&data->waiterMutex);
}

void await_no_waiters(UnixProcessData* data) {
    pthread_mutex_lock(&data->waiterMutex);
    while (data->waiterCount != 0)
        pthread_cond_wait(&data->waitersGone, &data->waiterMutex);
    pthread_mutex_unlock(&data->waiterMutex);
}
