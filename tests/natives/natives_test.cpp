// Natives driven through a hand-made JNIEnv, where a failure of the heap can be caused at every point.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/resource.h>

#include <chrono>
#include <string>
#include <vector>

#include "com_norvane_quillon_process_NativeProcessGlue.h"
#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "com_norvane_quillon_process_linuxutil_ThreadUtil.h"
#include "containment/containment.h"
#include "supervision/events.h"
#include "supervision/supervision_internal.h"
#include "supervision/trees.h"
#include "support/child.h"
#include "support/fake_jni.h"
#include "support/seams.h"

namespace {
const std::string kExceptions = "com/norvane/quillon/process/exception/";

// A launch of `sh -c "exit 4"` with an environment, a working directory and a file named relative to it,
// failing the at-th allocation: the handle, or 0.
jlong create_failing_at(FakeJni& jni, int at) {
    jobjectArray arguments = jni.array({jni.string("-c"), jni.string("exit $QUILLON_CODE")});
    jobjectArray environment = jni.array({jni.string("QUILLON_CODE=4"), jni.string("PATH=/usr/bin")});
    jobjectArray files = jni.array({nullptr, jni.string("/dev/null"), jni.string("null")});
    seams::malloc = {at, ENOMEM};
    jlong handle = Java_com_norvane_quillon_process_UnixProcessGlue_create(
        jni.env(), nullptr, jni.string("/bin/sh"), arguments, environment, jni.string("/dev"), 20, files, 022,
        nullptr, nullptr, 0, jni.string("extra"), JNI_FALSE, JNI_FALSE);
    return handle;
}

TEST(CreateNative, AnyFailedAllocationGivesOutOfMemory) {
    for (int at = 1;; ++at) {
        FakeJni jni;
        jlong handle = create_failing_at(jni, at);
        bool faulted = seams::malloc.at == 0;
        seams::malloc = {};
        if (handle == 0) {
            ASSERT_EQ(jni.thrown.size(), 1u) << "allocation " << at;
            EXPECT_EQ(jni.thrown[0].className, kExceptions + "OutOfMemoryException") << "allocation " << at;
            continue;
        }
        EXPECT_FALSE(faulted) << "allocation " << at << " failed, and the launch went ahead";
        RecordRef record(handle);
        int sysErr = 0;
        ASSERT_EQ(unix_WaitForProcessTermination(record.get(), &sysErr), PROC_SUCCESS);
        EXPECT_EQ(record->exitCode, 4) << "the program ran with all its parts";
        retire_record(handle);
        if (!faulted) break;
    }
}

// How many entries of the directory begin with `prefix`; -1 when it can't be read.
int entries_beginning(const char* directory, const std::string& prefix) {
    DIR* listing = opendir(directory);
    if (listing == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(listing))
        count += std::string(entry->d_name).starts_with(prefix) ? 1 : 0;
    closedir(listing);
    return count;
}

// The groups of contained trees this process has made and not yet removed.
int groups_left(const CgroupPlaces& places) {
    std::string prefix = "quillon-" + std::to_string(getpid()) + "-";
    int count = 0;
    for (const char* place : {places.unified, places.memory, places.pids})
        if (place[0] != 0) count += entries_beginning(place, prefix);
    return count;
}

// Serves the event set (which settles trees that empty) until `done` holds or two seconds pass.
template <typename Done> bool serve_until(Done done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        Event events[32];
        await_events(events, 32, 20);
    }
    return done();
}

// Where a launch tells what it made.
jlongArray launched_array(FakeJni& jni) {
    return jni.longs(std::vector<jlong>(com_norvane_quillon_process_NativeProcessGlue_LAUNCHED));
}

// A launch of `sh -c "exit 4"` with the flags given (a contained one with every limit this host can carry),
// failing the at-th allocation: the handle, or 0.
jlong launch_failing_at(FakeJni& jni, jlong flags, int at, jlongArray launched) {
    std::vector<jlong> settings(com_norvane_quillon_process_NativeProcessGlue_SETTINGS,
                                com_norvane_quillon_process_NativeProcessGlue_UNSET);
    settings[com_norvane_quillon_process_NativeProcessGlue_SETTING_FLAGS] = flags;
    settings[com_norvane_quillon_process_NativeProcessGlue_SETTING_PROCESS_GROUP] =
        com_norvane_quillon_process_NativeProcessGlue_GROUP_INHERIT;
    const CgroupPlaces* places = cgroup_places();
    if ((flags & com_norvane_quillon_process_NativeProcessGlue_FLAG_CONTAINED) != 0 && places != nullptr) {
        if (places->memory[0] != 0)
            settings[com_norvane_quillon_process_NativeProcessGlue_SETTING_MEMORY_LIMIT] = 64 << 20;
        if (places->pids[0] != 0)
            settings[com_norvane_quillon_process_NativeProcessGlue_SETTING_PROCESS_LIMIT] = 10;
    }
    jintArray modes = jni.ints({com_norvane_quillon_process_NativeProcessGlue_STD_NULL,
                                com_norvane_quillon_process_NativeProcessGlue_STD_PIPE,
                                com_norvane_quillon_process_NativeProcessGlue_STD_INHERIT});
    seams::malloc = {at, ENOMEM};
    return Java_com_norvane_quillon_process_NativeProcessGlue_launch(
        jni.env(), nullptr, jni.string("/bin/sh"), jni.array({jni.string("-c"), jni.string("exit 4")}),
        jni.array({}), nullptr, nullptr, modes, jni.array({nullptr, nullptr, nullptr}), nullptr, nullptr,
        jni.longs(settings), jni.longs({}), launched);
}

// Every allocation of a contained launch failed in turn: each failure is reported, and neither a group, a
// descriptor nor a tree is left behind, whether the program was made or not.
TEST(LaunchNative, AContainedLaunchWithAnyFailedAllocationLeavesNothingBehind) {
    const CgroupPlaces* places = cgroup_places();
    if (places == nullptr || places->unified[0] == 0) GTEST_SKIP() << "needs a writable cgroup v2 hierarchy";
    Event none[1];
    await_events(none, 1, 0); // the event set, made once for the life of the process
    int descriptors = entries_beginning("/proc/self/fd", "");
    for (int at = 1;; ++at) {
        FakeJni jni;
        jlongArray launched = launched_array(jni);
        jlong handle = launch_failing_at(jni, com_norvane_quillon_process_NativeProcessGlue_FLAG_CONTAINED,
                                         at, launched);
        bool faulted = seams::malloc.at == 0;
        seams::malloc = {};
        std::vector<jlong> outcome = FakeJni::values(launched);
        if (handle == 0) {
            EXPECT_EQ(jni.thrown.size(), 1u) << "allocation " << at;
        } else {
            EXPECT_FALSE(faulted) << "allocation " << at << " failed, and the launch went ahead";
            RecordRef record(handle);
            int sysErr = 0;
            ASSERT_EQ(unix_WaitForProcessTermination(record.get(), &sysErr), PROC_SUCCESS);
            EXPECT_EQ(record->exitCode, 4);
            close(
                static_cast<int>(outcome[com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_PIPES + 1]));
            int64_t tree = outcome[com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_TREE];
            TreeUsage usage;
            EXPECT_TRUE(serve_until([&] { return tree_empty(tree, &usage); })) << "allocation " << at;
            release_tree(tree);
            retire_record(handle);
        }
        EXPECT_TRUE(serve_until([&] { return groups_left(*places) == 0; })) << "allocation " << at;
        // The watch that collected the child lets go of its pidfd once the set has served its end.
        EXPECT_TRUE(serve_until([&] { return entries_beginning("/proc/self/fd", "") == descriptors; }))
            << "allocation " << at;
        if (!faulted) break;
    }
}

// Launches that end with the JVM and fail on the way, also after their process was made and registered,
// give the registration back: else retried launches would fill the watchdog (here 47 places) until every
// launch that ends with the JVM is refused.
TEST(LaunchNative, LaunchesThatFailOnTheWayGiveTheirWatchdogRegistrationBack) {
    ChildOutcome outcome = RunInChild(
        [] {
            rlimit limit = {48, 48};
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::string("setrlimit failed");
            const jlong endWithJvm = com_norvane_quillon_process_NativeProcessGlue_FLAG_END_WITH_JVM;
            for (int pass = 0; pass < 24; ++pass) { // three failures a pass come after the registration
                for (int at = 1;; ++at) {
                    FakeJni jni;
                    jlongArray launched = launched_array(jni);
                    jlong handle = launch_failing_at(jni, endWithJvm, at, launched);
                    bool faulted = seams::malloc.at == 0;
                    seams::malloc = {};
                    if (handle != 0) {
                        RecordRef record(handle);
                        int sysErr = 0;
                        unix_WaitForProcessTermination(record.get(), &sysErr);
                        close(static_cast<int>(FakeJni::values(launched)[2]));
                        retire_record(handle);
                    }
                    if (!faulted) break;
                }
            }
            FakeJni jni;
            jlong handle = launch_failing_at(jni, endWithJvm, 0, launched_array(jni));
            return handle != 0 ? std::string("launched") : jni.thrown.at(0).message;
        },
        120);
    EXPECT_EQ(outcome.report, "launched") << outcome.err;
}

TEST(ThreadUtilNative, AMutexThatCannotBeInitialisedIsReleasedAndRefused) {
    FakeJni jni;
    seams::mutexInit = {1, EAGAIN};
    EXPECT_EQ(Java_com_norvane_quillon_process_linuxutil_ThreadUtil_createMutex(jni.env(), nullptr), 0);
    ASSERT_EQ(jni.thrown.size(), 1u);
    EXPECT_EQ(jni.thrown[0].message, "Unrecoverable error.  Could not initialize the new pthreads mutex 011: "
                                     "Resource temporarily unavailable");
    // A failed or stale handle finds no mutex, and freeing it frees nothing.
    EXPECT_EQ(Java_com_norvane_quillon_process_linuxutil_ThreadUtil_mutexTrylock(jni.env(), nullptr, 12345), -1);
    EXPECT_EQ(Java_com_norvane_quillon_process_linuxutil_ThreadUtil_freeMutex(jni.env(), nullptr, 12345), 1);
}
} // namespace
