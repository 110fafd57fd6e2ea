// Link-time seams (-Wl,--wrap) for faults that can't be caused for real. Unarmed, each wrapper is the
// real call. Arming is per thread, and a forked child inherits the arming of the thread that forked.
#pragma once

namespace seams {
// The n-th next malloc of this thread fails with ENOMEM (1 = the next one); 0 disarms.
extern thread_local int mallocFailAt;
// The next dup2 / fork / pipe of this thread fails with this errno; 0 disarms.
extern thread_local int dup2Errno;
extern thread_local int forkErrno;
extern thread_local int pipeErrno;
// The next select of this thread returns selectResult with errno selectErrno instead of waiting.
extern thread_local bool selectArmed;
extern thread_local int selectResult;
extern thread_local int selectErrno;
} // namespace seams
