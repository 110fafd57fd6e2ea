#include "runtime/arena.h"

#include <cstdlib>
#include <cstring>

Arena::~Arena() {
    while (head_ != nullptr) {
        Block* next = head_->next;
        free(head_->adopted);
        free(head_);
        head_ = next;
    }
}

void* Arena::allocate(size_t size) {
    auto* block = static_cast<Block*>(malloc(sizeof(Block) + size));
    if (block == nullptr) return nullptr;
    block->next = head_;
    block->adopted = nullptr;
    head_ = block;
    return block + 1;
}

char* Arena::copy(const char* text, size_t length) {
    auto* copy = static_cast<char*>(allocate(length + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, length);
    copy[length] = 0;
    return copy;
}

char* Arena::copy(const char* text) {
    return copy(text, strlen(text));
}

bool Arena::adopt(void* adopted) {
    auto* block = static_cast<Block*>(malloc(sizeof(Block)));
    if (block == nullptr) {
        free(adopted);
        return false;
    }
    block->next = head_;
    block->adopted = adopted;
    head_ = block;
    return true;
}
