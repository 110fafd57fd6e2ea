// Killing a process with everything it started.
#pragma once

#include "quillon/supervision.h"

// SIGKILL to the process, to the process group it leads and to every descendant, all stopped first:
// a result code.
int kill_tree(UnixProcessData* data, int* sysErr);
// SIGKILL to a process group, unless no process is in it any more (then its number may name another group
// by now): whether it was sent.
bool kill_process_group(int group);
