// Link-time seams (-Wl,--wrap) for faults that can't be caused for real. Unarmed, each wrapper is the
// real call. Arming is per thread; a new process made by a launch shares the arming of the thread that
// launched it, since it shares that thread's memory until its exec.
#pragma once

#include <cerrno>

namespace seams {
// The at-th next call (1 = the next one) fails with err; at 0 is disarmed, kAlways fails every call.
constexpr int kAlways = -1;
struct Fault {
    int at = 0;
    int err = 0;
};
extern thread_local Fault malloc; // calloc as well
extern thread_local Fault dup2;  // the new process's dup2
extern thread_local Fault clone; // both the launch's and a detached launch's second one
extern thread_local Fault pipe;
extern thread_local Fault pidfd; // pidfd_open, as on a kernel without it
extern thread_local Fault mutexInit;
// The next select returns `result` with errno `err` instead of waiting.
struct SelectFake {
    bool armed = false;
    int result = 0;
    int err = 0;
};
extern thread_local SelectFake select;
} // namespace seams
