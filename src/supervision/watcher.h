// Watches followed processes for their end, on behalf of one thread that waits for all of them.
#pragma once

#include <cstdint>

#include "quillon/supervision.h"

// The handle of a watch that only collects a child's end, so that it never stays a zombie, and reports
// nothing. It outlives the record's handle.
constexpr int64_t kReapOnly = 0;

// Adds the record's process to the watch under its handle: a result code.
int watch_record(int64_t handle, UnixProcessData* data, int* sysErr);
// Blocks up to `timeoutMillis` (-1: no limit) until watched processes have ended; stores the handles
// of those that have (each once) and returns how many.
int await_ended(int64_t* ended, int capacity, int timeoutMillis);
// Drops every watch of the handle.
void forget_watches(int64_t handle);
