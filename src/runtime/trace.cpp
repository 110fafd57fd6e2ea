// Trace log: debug lines behind environment switches, error lines always, one fputs per stream and line.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

#include "quillon/runtime.h"
#include "runtime_internal.h"

namespace {
constexpr size_t kMessageSize = 3996;
constexpr size_t kLineSize = 4096;

std::atomic<int> __proc_dbg_enabled{0};
std::atomic<int> __proc_entryexit_enabled{0};
std::atomic<int> __proc_dbg_pid{0};

enum class Sink { Debug, Error };

void write_line(Sink sink, const char* format, va_list args) {
    char message[kMessageSize];
    vsnprintf(message, sizeof message, format, args);
    message[kMessageSize - 1] = 0;

    char line[kLineSize];
    snprintf(line, sizeof line, "Time: [0x%x], Process: [%d], Thread: [0x%x]: %s",
             static_cast<unsigned>(time(nullptr)), __proc_dbg_pid.load(std::memory_order_relaxed),
             static_cast<unsigned>(pthread_self()), message);
    line[kLineSize - 1] = 0;

    fputs(line, stdout);
    if (sink == Sink::Error) fputs(line, stderr);
    fflush(stdout);
    if (sink == Sink::Error) fflush(stderr);
}

void write_labelled(const char* pattern, const char* label) {
    if (__proc_entryexit_enabled.load(std::memory_order_relaxed) == 0 || label == nullptr) return;
    char text[kLineSize];
    snprintf(text, sizeof text, pattern, label);
    text[kLineSize - 1] = 0;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    process_log(text);
#pragma GCC diagnostic pop
}
} // namespace

pthread_mutex_t __proc_dbg_mutex = PTHREAD_MUTEX_INITIALIZER;

QUILLON_API void process_log_init_dbg(void) {
    pthread_mutex_lock(&__proc_dbg_mutex);
    if (getenv("__JNI_PROCESS_DEBUG") != nullptr || getenv("$$TRACE") != nullptr) __proc_dbg_enabled = 1;
    if (getenv("__JNI_PROCESS_ENTRYEXIT") != nullptr) __proc_entryexit_enabled = 1;
    int pid = __proc_dbg_pid.load();
    if (pid == 0 || pid != linux_getpid()) __proc_dbg_pid = linux_getpid();
    pthread_mutex_unlock(&__proc_dbg_mutex);
}

QUILLON_API void process_log(const char* format, ...) {
    if (__proc_dbg_enabled.load(std::memory_order_relaxed) == 0 || format == nullptr) return;
    va_list args;
    va_start(args, format);
    write_line(Sink::Debug, format, args);
    va_end(args);
}

QUILLON_API void process_err(const char* format, ...) {
    if (format == nullptr) return;
    va_list args;
    va_start(args, format);
    write_line(Sink::Error, format, args);
    va_end(args);
}

QUILLON_API void process_log_entry(const char* label) {
    write_labelled("> entering: [%s]\n", label);
}

QUILLON_API void process_log_exit(const char* label) {
    write_labelled("< exiting: [%s]\n", label);
}

QUILLON_API int process_log_is_dbg_enabled(void) {
    return __proc_dbg_enabled.load();
}

QUILLON_API int process_log_is_entryexit_enabled(void) {
    return __proc_entryexit_enabled.load();
}
