// Blocks from malloc that are released together, by their one owner.
#pragma once

#include <cstddef>

#include "runtime/support.h"

class Arena : NoCopy {
  public:
    ~Arena();

    // Null when memory ran out.
    void* allocate(size_t size);
    char* copy(const char* text);
    char* copy(const char* text, size_t length);
    template <typename T> T* allocate_array(size_t count) {
        return static_cast<T*>(allocate(count * sizeof(T)));
    }
    // Takes over a block from malloc; false, with the block freed, when memory ran out.
    bool adopt(void* block);

  private:
    struct alignas(16) Block {
        Block* next;
        void* adopted;
    };
    Block* head_ = nullptr;
};
