// State of the runtime shared between its own files (not part of the library's interface).
#pragma once

#include <pthread.h>

extern pthread_mutex_t __proc_dbg_mutex;
extern pthread_mutex_t __linux_pid_determine_mutex;
