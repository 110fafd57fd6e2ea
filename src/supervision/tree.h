// Killing a process with everything it started.
#pragma once

#include "quillon/supervision.h"

// SIGKILL to the process, to the process group it leads and to every descendant, all stopped first:
// a result code.
int kill_tree(UnixProcessData* data, int* sysErr);
