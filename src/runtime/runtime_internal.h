// The runtime's state shared between its own files and with the launch, which writes the new process's
// trace lines itself.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <pthread.h>

extern pthread_mutex_t trace_switch_mutex;
extern pthread_mutex_t main_pid_mutex;

constexpr size_t kTraceLineSize = 4096;

// "Time: [0x%x], Process: [%d], Thread: [0x%x]: " and the formatted message, cut at 3995 characters.
void format_trace_line(char (&line)[kTraceLineSize], int pid, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
// The process id that trace lines carry now.
int trace_pid();
