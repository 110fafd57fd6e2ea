// Trace log: debug lines behind environment switches, error lines always, one fputs per stream and line.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

#include "quillon/runtime.h"
#include "runtime/runtime_internal.h"
#include "runtime/support.h"

namespace {
constexpr size_t kMessageSize = 3996;

std::atomic<int> debug_enabled{0};
std::atomic<int> entry_exit_enabled{0};
std::atomic<int> traced_pid{0};
thread_local bool silenced = false;

void write_line(bool error, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
void write_line(bool error, const char* format, va_list args) {
    char line[kTraceLineSize];
    format_trace_line(line, traced_pid.load(std::memory_order_relaxed), format, args);
    fputs(line, stdout);
    if (error) fputs(line, stderr);
    fflush(stdout);
    if (error) fflush(stderr);
}

void write_labelled(const char* pattern, const char* label) __attribute__((format(printf, 1, 0)));
void write_labelled(const char* pattern, const char* label) {
    if (silenced || entry_exit_enabled.load(std::memory_order_relaxed) == 0 || label == nullptr) return;
    char text[kTraceLineSize];
    snprintf(text, sizeof text, pattern, label);
    process_log("%s", text);
}
} // namespace

pthread_mutex_t trace_switch_mutex = PTHREAD_MUTEX_INITIALIZER;

NEW_PROCESS_CODE void format_trace_line(char (&line)[kTraceLineSize], int pid, const char* format, va_list args) {
    char message[kMessageSize];
    vsnprintf(message, sizeof message, format, args);
    snprintf(line, sizeof line, "Time: [0x%x], Process: [%d], Thread: [0x%x]: %s",
             static_cast<unsigned>(time(nullptr)), pid, static_cast<unsigned>(pthread_self()), message);
}

int trace_pid() {
    return traced_pid.load();
}

QUILLON_API void process_log_init_dbg(void) {
    pthread_mutex_lock(&trace_switch_mutex);
    if (getenv("__JNI_PROCESS_DEBUG") != nullptr || getenv("$$TRACE") != nullptr) debug_enabled = 1;
    if (getenv("__JNI_PROCESS_ENTRYEXIT") != nullptr) entry_exit_enabled = 1;
    int pid = traced_pid.load();
    if (pid == 0 || pid != linux_getpid()) traced_pid = linux_getpid();
    pthread_mutex_unlock(&trace_switch_mutex);
}

TraceSilence::TraceSilence() : before_(silenced) {
    silenced = true;
}

TraceSilence::~TraceSilence() {
    silenced = before_;
}

bool trace_silenced() {
    return silenced;
}

QUILLON_API void process_log(const char* format, ...) {
    if (silenced || debug_enabled.load(std::memory_order_relaxed) == 0 || format == nullptr) return;
    va_list args;
    va_start(args, format);
    write_line(false, format, args);
    va_end(args);
}

QUILLON_API void process_err(const char* format, ...) {
    if (silenced || format == nullptr) return;
    va_list args;
    va_start(args, format);
    write_line(true, format, args);
    va_end(args);
}

QUILLON_API void process_log_entry(const char* label) {
    write_labelled("> entering: [%s]\n", label);
}

QUILLON_API void process_log_exit(const char* label) {
    write_labelled("< exiting: [%s]\n", label);
}

QUILLON_API int process_log_is_dbg_enabled(void) {
    return debug_enabled.load();
}

QUILLON_API int process_log_is_entryexit_enabled(void) {
    return entry_exit_enabled.load();
}
