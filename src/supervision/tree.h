// Killing a process with everything it started.
#pragma once

#include "quillon/supervision.h"

// SIGKILL to the process, to the process group it leads and to every descendant, all stopped first:
// a result code. A search of the descendants cut short (no memory, no descriptor) still kills what it found
// and stopped, then reports the errno; when it can't be told whether the tree holds this process, nothing is
// sent.
int kill_tree(UnixProcessData* data, int* sysErr);
// A live (not zombie) process of the group, 0 when there is none, -errno when /proc could not be read
// whole (EMFILE, ENOMEM...): then a member may live.
int live_member_of(int group);
// Whether the process lives and is in the group.
bool in_process_group(int pid, int group);
// A signal to a process group, unless no live process is in it any more (then its number may name another
// group by now): 0 (also when there was nobody to signal) or an errno.
int signal_process_group(int group, int signal);
// SIGKILL to a process group with a live process in it (or one that can't be told apart from none): whether
// it was sent.
bool kill_process_group(int group);
