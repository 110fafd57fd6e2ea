// One epoll set for everything the public API waits on, served by one thread: the ends of watched
// processes, and the pipes of launched programs, read (captured whole, or delivered chunk by chunk) or fed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quillon/supervision.h"

// The handle of a watch that only collects a child's end, so that it never stays a zombie, and reports
// nothing. It outlives the record's handle.
constexpr int64_t kReapOnly = 0;

// What await_events reports, each once.
enum EventKind : int {
    kEventEnded = 1, // token: the handle of a watched process that has ended (a child is collected already)
    kEventChunk = 2, // token: a delivery whose chunk waits to be taken, or which has reached its end
    kEventCaptured = 3, // token: a capture that has read its pipe to the end
    kEventFed = 4,      // token: a feed that has written all its input, or whose reader went away
    kEventTree = 5,     // token: a contained tree whose last member has ended
};

struct Event {
    int kind;
    int64_t token;
};

// Adds the record's process to the watch under its handle: a result code.
int watch_record(int64_t handle, UnixProcessData* data, int* sysErr);
// Drops every watch of the handle.
void forget_watches(int64_t handle);
// Blocks up to `timeoutMillis` (-1: no limit) for events; stores up to `capacity` and returns how many.
int await_events(Event* events, int capacity, int timeoutMillis);
// Ends the wait of await_events in progress, or the next one.
void wake_events();

// Watches a contained tree, whose root is `root`, until it is empty: reported once then, unless it was
// released meanwhile (then it is freed). A result code.
int watch_tree(int64_t token, int root);

// Pipe sources. Each takes over the descriptor (made non-blocking, closed by the source) and gives a token, 0
// when memory ran out (the descriptor is closed then). Tokens name one source for good.
// A capture reads everything up to `limit` bytes into memory and counts what it drops beyond.
int64_t add_capture(int fd, size_t limit);
// A delivery reads one chunk at a time: it stops reading until the chunk has been taken and it is resumed.
int64_t add_delivery(int fd);
// A feed writes a copy of `input` and closes the descriptor at its end.
int64_t add_feed(int fd, const void* input, size_t size);

// The chunk of a delivery, taken once (from malloc, the caller frees it): false when there is none; *end
// when the pipe has reached its end (then *data is null).
bool take_chunk(int64_t token, char** data, size_t* size, bool* end);
// Gives back a chunk (or the end: null) that could not be handed on: it waits to be taken again, and is
// reported again.
void return_chunk(int64_t token, char* data, size_t size);
// Reads on after a chunk was taken; with `discard`, drops whatever comes from now on, to the end.
void resume_delivery(int64_t token, bool discard);
// What a capture read (from malloc, the caller frees it) and how many bytes it dropped, taken once after its
// end or its cancellation: false before.
bool take_capture(int64_t token, char** data, size_t* size, uint64_t* dropped);
// Stops a source now: its descriptor is closed; a capture keeps what it read.
void cancel_source(int64_t token);
// Forgets a source, cancelling it first.
void release_source(int64_t token);
