// Natives driven through a hand-made JNIEnv, where a failure of the heap can be caused at every point.
#include <gtest/gtest.h>

#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "com_norvane_quillon_process_linuxutil_ThreadUtil.h"
#include "supervision/supervision_internal.h"
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
        jni.env(), nullptr, jni.string("/bin/sh"), arguments, environment, jni.string("/dev"), 20, files, 022, nullptr,
        nullptr, 0, jni.string("extra"), JNI_FALSE, JNI_FALSE);
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
