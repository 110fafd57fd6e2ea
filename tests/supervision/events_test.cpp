// The event set when the system refuses it something: a descriptor the set won't take, memory that runs out
// while a pipe is read, a heap that can't take a chunk. Nothing is reported early, and nothing read is lost.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "com_norvane_quillon_process_NativeProcessGlue.h"
#include "quillon/supervision.h"
#include "support/child.h"
#include "support/fake_jni.h"
#include "support/seams.h"
#include "supervision/events.h"
#include "supervision/supervision_internal.h"

namespace {
// Serves the set until the event of `kind` for `token` comes (true) or `millis` pass (false). Events of
// others are served and dropped.
bool event_comes(int kind, int64_t token, int millis) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
    do {
        Event events[32];
        int count = await_events(events, 32, 20);
        for (int i = 0; i < count; ++i)
            if (events[i].kind == kind && events[i].token == token) return true;
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

struct Refusals {
    explicit Refusals(seams::Fault& fault, int err) : fault_(fault) {
        wake_events(); // the set itself is made before anything is refused
        fault_ = {seams::kAlways, err};
    }
    ~Refusals() { fault_ = {}; }
    seams::Fault& fault_;
};

TEST(EventSet, AProcessWhosePidfdItRefusesIsReportedAtItsEndAndNotBefore) {
    int release = -1;
    pid_t pid = ChildEndingOnRelease(7, &release);
    ASSERT_GT(pid, 0);
    UnixProcessData* data = new_record();
    snprintf(data->pid, kPidTextSize, "%d", pid);
    int sysErr = 0;
    ASSERT_EQ(unix_AdoptProcess(data, &sysErr), PROC_SUCCESS);
    constexpr int64_t kHandle = 0x5eed;
    {
        Refusals refused(seams::epollAdd, ENOSPC);
        ASSERT_EQ(watch_record(kHandle, data, &sysErr), PROC_SUCCESS);
    }
    EXPECT_FALSE(event_comes(kEventEnded, kHandle, 300)) << "reported while the process runs";
    close(release);
    EXPECT_TRUE(event_comes(kEventEnded, kHandle, 5000));
    EXPECT_EQ(unix_GetProcessExitCode(data, &sysErr), PROC_SUCCESS);
    EXPECT_EQ(data->exitCode, 7);
    destroy_record(data);
}

TEST(EventSet, APipeItRefusesIsStillCapturedToItsEnd) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::string written(300 * 1024, 'x'); // more than one round of reads takes
    ASSERT_GE(fcntl(ends[1], F_SETPIPE_SZ, 512 * 1024), 0);
    ASSERT_EQ(write(ends[1], written.data(), written.size()), static_cast<ssize_t>(written.size()));
    close(ends[1]);
    int64_t token;
    {
        Refusals refused(seams::epollAdd, ENOMEM);
        token = add_capture(ends[0], written.size());
        ASSERT_NE(token, 0);
    }
    EXPECT_TRUE(event_comes(kEventCaptured, token, 5000));
    char* data = nullptr;
    size_t size = 0;
    uint64_t dropped = 0;
    cancel_source(token);
    ASSERT_TRUE(take_capture(token, &data, &size, &dropped));
    EXPECT_EQ(std::string(data, size), written);
    EXPECT_EQ(dropped, 0u);
    free(data);
    release_source(token);
}

TEST(EventSet, ADeliveryThatRunsOutOfMemoryReadsNothingItCannotKeep) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "first", 5), 5);
    int64_t token = add_delivery(ends[0]);
    ASSERT_NE(token, 0);
    {
        Refusals refused(seams::malloc, ENOMEM);
        Event events[8];
        for (int round = 0; round < 5; ++round)
            await_events(events, 8, 0);
    }
    ASSERT_TRUE(event_comes(kEventChunk, token, 5000));
    char* data = nullptr;
    size_t size = 0;
    bool end = false;
    ASSERT_TRUE(take_chunk(token, &data, &size, &end));
    EXPECT_EQ(std::string(data, size), "first");
    free(data);
    close(ends[1]);
    release_source(token);
}

TEST(EventSet, AChunkTheHeapCannotTakeIsOfferedAgain) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "chunk", 5), 5);
    close(ends[1]);
    int64_t token = add_delivery(ends[0]);
    ASSERT_TRUE(event_comes(kEventChunk, token, 5000));
    FakeJni jni;
    auto take = [&](bool heapFull) {
        jni.failNewArrays = heapFull;
        jbyteArray chunk =
            Java_com_norvane_quillon_process_NativeProcessGlue_takeChunk(jni.env(), nullptr, token);
        return chunk == nullptr ? std::string("none") : FakeJni::raw(chunk);
    };
    for (const char* offered : {"chunk", ""}) { // the end, too, is offered again
        EXPECT_EQ(take(true), "none") << offered;
        ASSERT_TRUE(event_comes(kEventChunk, token, 5000)) << offered;
        EXPECT_EQ(take(false), offered);
        if (*offered == 0) break;
        resume_delivery(token, false);
        ASSERT_TRUE(event_comes(kEventChunk, token, 5000));
    }
    release_source(token);
}
} // namespace
