// Launches whose outcome goes into a record: the exported unix_* launches and the create native show the
// record's PID text and isAlive as they go; the public API's launch makes its record from the outcome.
#pragma once

#include "launch/launch_internal.h"
#include "quillon/supervision.h"

// The launch into a record the caller made, with PID "0" and isAlive 1: its PID text ("-1" after a failed
// clone), isAlive, and the supervision entry of a process that runs. A result code, with sysErr.
int launch_into_record(LaunchRequest& request, UnixProcessData* data, int* sysErr);
// unix_spawnProcess for any request: a record that has a PID already is left alone.
int spawn_request(LaunchRequest& request, UnixProcessData* data, int* sysErr);
// A new record, with its entry, for the process of a successful launch; null when memory ran out (the
// caller then abandons the process).
UnixProcessData* record_of_launch(LaunchOutcome& outcome);
