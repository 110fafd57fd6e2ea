#include "supervision/id_table.h"

#include <atomic>
#include <cstdlib>

namespace {
constexpr uint64_t kEmpty = 0;
constexpr uint64_t kErased = ~uint64_t{0};
} // namespace

uint64_t nth_handle(uint64_t n) {
    uint64_t h = n;
    h ^= h >> 30;
    h *= 0xBF58476D1CE4E5B9u;
    h ^= h >> 27;
    h *= 0x94D049BB133111EBu;
    h ^= h >> 31;
    return h == kErased ? nth_handle(n + (uint64_t{1} << 63)) : h; // one n in 2^64 meets the reserved key
}

uint64_t unique_handle() {
    static std::atomic<uint64_t> given{0};
    return nth_handle(given.fetch_add(1, std::memory_order_relaxed) + 1);
}

IdTable::~IdTable() {
    free(slots_);
}

size_t IdTable::index_of(uint64_t key) const {
    return static_cast<size_t>((key * 0x9E3779B97F4A7C15u) >> 17) & (capacity_ - 1);
}

void* IdTable::find(uint64_t key) const {
    if (capacity_ == 0) return nullptr;
    for (size_t i = index_of(key);; i = (i + 1) & (capacity_ - 1)) {
        if (slots_[i].key == key) return slots_[i].value;
        if (slots_[i].key == kEmpty) return nullptr;
    }
}

// Rebuilds the table at a size where the live keys fill at most 3/8 of it; erased slots go away.
bool IdTable::grow() {
    size_t capacity = 64;
    while (capacity * 3 < (live_ + 1) * 8)
        capacity *= 2;
    auto* slots = static_cast<Slot*>(calloc(capacity, sizeof(Slot)));
    if (slots == nullptr) return false;
    Slot* old = slots_;
    size_t oldCapacity = capacity_;
    slots_ = slots;
    capacity_ = capacity;
    used_ = 0;
    live_ = 0;
    for (size_t i = 0; i < oldCapacity; ++i)
        if (old[i].key != kEmpty && old[i].key != kErased) insert(old[i].key, old[i].value);
    free(old);
    return true;
}

bool IdTable::insert(uint64_t key, void* value) {
    if ((used_ + 1) * 4 > capacity_ * 3 && !grow()) return false;
    size_t i = index_of(key);
    while (slots_[i].key != kEmpty && slots_[i].key != kErased)
        i = (i + 1) & (capacity_ - 1);
    if (slots_[i].key == kEmpty) ++used_;
    ++live_;
    slots_[i] = {key, value};
    return true;
}

void* IdTable::erase(uint64_t key) {
    if (capacity_ == 0) return nullptr;
    for (size_t i = index_of(key);; i = (i + 1) & (capacity_ - 1)) {
        if (slots_[i].key == key) {
            void* value = slots_[i].value;
            slots_[i] = {kErased, nullptr};
            --live_;
            return value;
        }
        if (slots_[i].key == kEmpty) return nullptr;
    }
}
