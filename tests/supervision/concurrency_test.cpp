// Threads at one process and one handle at once (children made by fork, which every sanitizer follows).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/child.h"
#include "supervision/supervision_internal.h"

namespace {
UnixProcessData* record_of(pid_t pid) {
    UnixProcessData* data = new_record();
    snprintf(data->pid, kPidTextSize, "%d", pid);
    return data;
}

// Two records on one child, both adopted before it ends: a blocking wait, a timed wait, a probe and
// exit-code reads all see its status, whichever collects it.
TEST(Concurrently, WaitsProbesAndReadsOnOneChildAgree) {
    for (int round = 0; round < 40; ++round) {
        int release = -1;
        pid_t pid = ChildEndingOnRelease(round, &release); // released once both records are made
        ASSERT_GT(pid, 0);
        UnixProcessData* first = record_of(pid);
        UnixProcessData* second = record_of(pid);
        int err = 0;
        ASSERT_EQ(unix_AdoptProcess(first, &err), PROC_SUCCESS);
        ASSERT_EQ(unix_AdoptProcess(second, &err), PROC_SUCCESS);
        close(release);
        std::vector<std::thread> readers;
        readers.emplace_back([&] {
            int err = 0;
            EXPECT_EQ(unix_WaitForProcessTermination(first, &err), PROC_SUCCESS);
        });
        readers.emplace_back([&] {
            int err = 0;
            EXPECT_EQ(wait_with_timeout(second, 5000, &err), PROC_SUCCESS);
        });
        readers.emplace_back([&] {
            int err = 0;
            while (unix_PingProcess(first, &err) == PROC_SUCCESS && load_field(first->isAlive) != 0)
                std::this_thread::yield();
        });
        readers.emplace_back([&] {
            int err = 0;
            while (unix_GetProcessExitCode(second, &err) == PROC_STILL_ACTIVE)
                std::this_thread::yield();
        });
        for (auto& reader : readers)
            reader.join();
        EXPECT_EQ(first->exitCode, round);
        EXPECT_EQ(second->exitCode, round);
        destroy_record(first);
        destroy_record(second);
    }
}

// A handle retired while other threads use it: later lookups fail, and the record stays until the last
// user has let it go, and no longer: the 150 later rounds keep no more heap than the threads' own bookkeeping
// (kept records would hold 150).
TEST(Concurrently, ARetiredHandleKeepsItsRecordForTheCallsUsingIt) {
    long before = 0;
    for (int round = 0; round < 200; ++round) {
        if (round == 50) before = static_cast<long>(HeapInUse());
        UnixProcessData* data = record_of(getpid());
        int64_t handle = register_record(data);
        ASSERT_NE(handle, 0);
        std::atomic<bool> retiring{false};
        std::vector<std::thread> users;
        for (int t = 0; t < 3; ++t)
            users.emplace_back([&] {
                for (;;) {
                    RecordRef record(handle);
                    if (!record) {
                        EXPECT_TRUE(retiring) << "only a retired handle finds nothing";
                        return;
                    }
                    EXPECT_EQ(record_pid(record.get()), getpid());
                }
            });
        retiring = true;
        EXPECT_TRUE(retire_record(handle));
        EXPECT_FALSE(retire_record(handle));
        for (auto& user : users)
            user.join();
    }
    EXPECT_LT(static_cast<long>(HeapInUse()) - before, static_cast<long>(sizeof(UnixProcessData)) * 50);
}
} // namespace
