// A map from 64-bit keys (never 0 or all ones) to pointers: open addressing with linear probing, grown
// with malloc; a growth that finds no memory is reported, not thrown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "runtime/support.h"

// The n-th handle a registry gives out (n from 1): a bijection of n, so handles are unique for the life of
// the process, never small numbers a caller might pass by mistake, and never 0 or all ones.
uint64_t nth_handle(uint64_t n);
// A handle no registry has given out before: one sequence for records, mutexes, watches and pipe sources, so
// that a number names one thing of one kind for good, also where kinds share a map (the Java side's).
uint64_t unique_handle();

class IdTable : NoCopy {
  public:
    ~IdTable();

    void* find(uint64_t key) const;
    // False when memory ran out; the key must not be in the table.
    bool insert(uint64_t key, void* value);
    // The value that was there, or null.
    void* erase(uint64_t key);
    // Calls `visit` with every value; `visit` must not change the table.
    template <typename Visit> void for_each(Visit visit) const {
        for (size_t i = 0; i < capacity_; ++i)
            if (slots_[i].key != 0 && slots_[i].key != ~uint64_t{0}) visit(slots_[i].value);
    }

  private:
    struct Slot {
        uint64_t key;
        void* value;
    };
    size_t index_of(uint64_t key) const;
    bool grow();

    Slot* slots_ = nullptr;
    size_t capacity_ = 0; // a power of two
    size_t used_ = 0;     // live and erased slots
    size_t live_ = 0;
};

// Handles for objects of one kind: numbers unique for the life of the process, kept in a table under one
// lock, so that 0, a released handle and any made-up number find nothing.
class HandleRegistry : NoCopy {
  public:
    // Runs `work` on the table with the lock held.
    template <typename Work> auto locked(Work work) {
        pthread_mutex_lock(&lock_);
        auto result = work(table_);
        pthread_mutex_unlock(&lock_);
        return result;
    }
    // A new handle for the object: 0 when memory ran out.
    uint64_t add(void* object) {
        uint64_t handle = unique_handle();
        return locked([&](IdTable& table) { return table.insert(handle, object) ? handle : 0; });
    }

  private:
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    IdTable table_;
};
