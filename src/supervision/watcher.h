// Watches followed processes for their end, on behalf of one thread that waits for all of them.
#pragma once

#include <cstdint>

#include "quillon/supervision.h"

// Adds the record's process to the watch under its handle: a result code.
int watch_record(int64_t handle, UnixProcessData* data, int* sysErr);
// Blocks up to `timeoutMillis` (-1: no limit) until watched processes have ended; stores the handles
// of those that have (each once) and returns how many.
int await_ended(int64_t* ended, int capacity, int timeoutMillis);
// Drops every watch of the handle.
void forget_watches(int64_t handle);
