// Link-time seams (-Wl,--wrap) for faults that can't be caused for real. Unarmed, each wrapper is the
// real call. Arming is per thread, and a forked child inherits the arming of the thread that forked.
#pragma once

#include <cerrno>

namespace seams {
// The at-th next call (1 = the next one) fails with err; at 0 is disarmed.
struct Fault {
    int at = 0;
    int err = 0;
};
extern thread_local Fault malloc;
extern thread_local Fault dup2;
extern thread_local Fault fork;
extern thread_local Fault pipe;
// The next select returns `result` with errno `err` instead of waiting.
struct SelectFake {
    bool armed = false;
    int result = 0;
    int err = 0;
};
extern thread_local SelectFake select;
} // namespace seams
