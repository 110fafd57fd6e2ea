// The id of the main process, cached; a probe thread tells whether threads share one process id.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

#include "quillon/runtime.h"
#include "runtime/runtime_internal.h"

pthread_mutex_t main_pid_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {
int cached_main_pid = 0;

// The value behind the tab of a "PPid:" line, if it is all digits. A line without a tab gives nothing.
bool parse_ppid_value(const char* line, int* out) {
    const char* tab = static_cast<const char*>(memchr(line, '\t', strnlen(line, 1023)));
    if (tab == nullptr) return false;
    const char* value = tab + 1;
    for (const char* c = value; *c != 0 && *c != '\n'; ++c)
        if (!isdigit(static_cast<unsigned char>(*c))) return false;
    *out = atoi(value);
    return true;
}

// Forks must never leave a child with a trace mutex held by a thread that does not exist there: the
// prepare handler takes both mutexes in their order, and both sides release them. (The standard
// streams need nothing here: the C library gives the child of a multi-threaded process fresh stream
// locks.)
void fork_prepare() {
    pthread_mutex_lock(&trace_switch_mutex);
    pthread_mutex_lock(&main_pid_mutex);
}
void fork_release() {
    pthread_mutex_unlock(&main_pid_mutex);
    pthread_mutex_unlock(&trace_switch_mutex);
}
__attribute__((constructor)) void install_fork_handlers() {
    pthread_atfork(fork_prepare, fork_release, fork_release);
}
} // namespace

QUILLON_API void* linux_determine_mainpid(void* arg) {
    int* pid = static_cast<int*>(arg);
    if (getpid() == *pid) {
        process_log("DBG:  Parent pid matches child pid.  NPTL or similar based implementation.\n");
        pthread_exit(nullptr);
    }
    process_log("DBG:  Parent pid does not match child pid.  LinuxThreads based implementation.\n");
    char path[1024];
    snprintf(path, 1023, "/proc/%d/status", getppid());
    process_log("DBG:  Attempting to open: %s\n", path);
    FILE* status = fopen(path, "r");
    if (status == nullptr) {
        process_log("DBG:  Could not open status file\n");
        pthread_exit(nullptr);
    }
    char line[1024];
    while (fgets(line, 1023, status) != nullptr) {
        process_log("DBG:  Read out entry: %s\n", line);
        if (strstr(line, "PPid:") != nullptr) {
            parse_ppid_value(line, pid);
            break;
        }
    }
    fclose(status);
    pthread_exit(nullptr);
}

QUILLON_API int linux_getpid(void) {
    pthread_mutex_lock(&main_pid_mutex);
    int result = cached_main_pid;
    if (result != 0) {
        process_log("DBG:  linux_getpid(): We already have PID in static storage.  Value is: %d\n", result);
    } else {
        process_log("DBG:  linux_getpid(): No end entry and nothing in static storage yet...\n");
        process_log("DBG:  linux_getpid(): So, bruteforce determine it from /proc info + other checks...\n");
        int pid = getpid();
        pthread_t probe;
        if (pthread_create(&probe, nullptr, linux_determine_mainpid, &pid) == 0) {
            pthread_join(probe, nullptr);
            cached_main_pid = pid;
        }
        process_log("DBG:  linux_getpid(): Determined main pid to be: %d\n", pid);
        result = pid;
    }
    pthread_mutex_unlock(&main_pid_mutex);
    return result;
}

QUILLON_API void linux_reset_pid(void) {
    pthread_mutex_lock(&main_pid_mutex);
    cached_main_pid = getpid();
    pthread_mutex_unlock(&main_pid_mutex);
}
