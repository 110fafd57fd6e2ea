// Small pieces every subsystem uses: bounded copies, retries of interrupted calls, owners that release
// on every path, trace scopes and the mapping of a system error to a result code.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <unistd.h>

#include "quillon/result_codes.h"
#include "quillon/runtime.h"

// Code that runs in a new process before its exec. It shares the launcher's memory and thread pointer until
// then, so a sanitizer's per-thread state would be the launching thread's: it runs uninstrumented.
#define NEW_PROCESS_CODE __attribute__((no_sanitize("address", "undefined", "thread")))
// Code that may run after the thread that made its process has ended (the watchdog): its thread pointer
// may dangle, so it reads no thread-local state, not even a stack protector's canary.
#define THREADLESS_CODE NEW_PROCESS_CODE __attribute__((no_stack_protector))

// A copy into a fixed buffer that is always terminated: a text that doesn't fit is cut at size - 1.
inline void copy_bounded(char* dst, const char* src, size_t size) {
    size_t length = strnlen(src, size - 1);
    memcpy(dst, src, length);
    dst[length] = 0;
}

// Native text in UTF-8 in `dst`, or the text as it stands where the conversion fails; cut to size - 1.
char* utf8_or_as_is(char* dst, const char* src, size_t size);

// Low 32 bits of a pointer, the way trace lines print addresses.
inline unsigned trace_ptr(const void* p) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// Repeats a system call while a signal interrupts it.
template <typename Call> auto retry_on_eintr(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

// The result code of a failed system call: running out of memory or of descriptors has a code of its
// own, the `refused` errors mean the system refused the caller's input, anything else is a system error.
NEW_PROCESS_CODE inline int result_for_errno(int err, std::initializer_list<int> refused, int refusedResult,
                            int otherResult = PROC_SYSTEM_ERR) {
    if (err == ENOMEM) return PROC_OUT_OF_MEMORY;
    if (err == EMFILE || err == ENFILE) return PROC_OUT_OF_FILE_HANDLES;
    for (int candidate : refused)
        if (err == candidate) return refusedResult;
    return otherResult;
}

// A base for owners that must not be copied.
struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

// A descriptor, closed when its owner goes.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// A block from malloc, freed when its owner goes.
struct FreeDeleter {
    void operator()(void* block) const { free(block); }
};
template <typename T> using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// The entry line of a traced function now and its exit line when the scope ends, unless the function
// writes no exit line on the path it took.
class TraceScope : NoCopy {
  public:
    explicit TraceScope(const char* label) : label_(label) { process_log_entry(label); }
    ~TraceScope() {
        if (label_ != nullptr) process_log_exit(label_);
    }
    void skip_exit() { label_ = nullptr; }

  private:
    const char* label_;
};

// While it lasts, the calling thread writes no trace line, debug or error: the public API reports through
// its exceptions and the JVM's logger, never on the JVM's own streams.
class TraceSilence : NoCopy {
  public:
    TraceSilence();
    ~TraceSilence();

  private:
    bool before_;
};
bool trace_silenced();
