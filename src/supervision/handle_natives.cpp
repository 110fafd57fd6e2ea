// Natives that make, probe, name and release handles: createSelf, recreate, ping, id, done.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "quillon/boundary.h"
#include "quillon/runtime.h"
#include "quillon/supervision.h"

namespace {
UnixProcessData* record_of(jlong handle) {
    return static_cast<UnixProcessData*>(process_ConvertJlongToPointer(handle));
}

void release_record(UnixProcessData* data) {
    unix_doneWithProcess(data, nullptr);
    free(data);
}
} // namespace

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_createSelf(JNIEnv* env, jobject) {
    process_log_entry("UnixProcessGlue_createSelf()");
    int sysErr = 0;
    UnixProcessData* data = NewProcessData();
    if (data == nullptr) {
        ThrowWithMessage(env, PROC_OUT_OF_MEMORY, "Error in createSelf. ", errno);
        process_log_exit("UnixProcessGlue_createSelf()");
        return 0;
    }
    snprintf(data->pid, kPidTextSize, "%d", linux_getpid());
    data->pid[kPidTextSize - 1] = 0;
    int result = unix_AdoptProcess(data, &sysErr);
    if (result != PROC_SUCCESS) {
        process_log("Recreation of self failure.  Therefore deallocating process structure at: [0x%x]\n",
                    trace_ptr(data));
        release_record(data);
        ThrowWithMessage(env, result, "Error in createSelf. ", sysErr);
        data = nullptr;
    }
    process_log_exit("UnixProcessGlue_createSelf()");
    return process_ConvertPointerTo64(data);
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_ping(JNIEnv* env, jobject,
                                                                             jlong handle) {
    process_log_entry("UnixProcessGlue_ping()");
    UnixProcessData* data = record_of(handle);
    int sysErr = 0;
    jint alive = 0;
    int result = PROC_SUCCESS;
    if (load_field(data->isAlive) != 0) result = unix_PingProcess(data, &sysErr);
    if (result != PROC_SUCCESS)
        ThrowWithMessage(env, result, "Error pinging process. ", sysErr);
    else
        alive = load_field(data->isAlive);
    process_log_exit("UnixProcessGlue_ping()");
    return alive;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_done(JNIEnv*, jobject, jlong handle) {
    process_log_entry("UnixProcessGlue_done()");
    UnixProcessData* data = record_of(handle);
    process_log("Deallocating data at: [0x%x], for process: [%s]\n", trace_ptr(data), data->pid);
    release_record(data);
    process_log_exit("UnixProcessGlue_done()");
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_recreate(JNIEnv* env, jobject,
                                                                                  jstring pidText) {
    process_log_entry("UnixProcessGlue_recreate()");
    int result = PROC_SUCCESS;
    int sysErr = 0;
    UnixProcessData* data = nullptr;
    char text[kPidTextSize] = {};
    if (pidText == nullptr) {
        result = PROC_SYSTEM_ERR;
    } else {
        process_GetNativeStringFromJString(env, text, pidText, sizeof text);
        if (atoi(text) <= 0) {
            // 0 and negative numbers name process groups to waitpid and kill: never adopt them.
            result = PROC_SYSTEM_ERR;
            sysErr = EINVAL;
        } else if ((data = NewProcessData()) == nullptr) {
            sysErr = errno;
            result = PROC_OUT_OF_MEMORY;
        } else {
            copy_bounded(data->pid, text, kPidTextSize);
            result = unix_AdoptProcess(data, &sysErr);
        }
    }
    if (result == PROC_SUCCESS) {
        process_log("Successfully recreated process [%s]\n", data->pid);
    } else {
        if (data != nullptr) {
            process_log("Recreation failure.  Therefore deallocating process structure at: [0x%x]\n",
                        trace_ptr(data));
            release_record(data);
            data = nullptr;
        }
        ThrowWithMessage(env, result, "Error recreating process object. ", sysErr);
    }
    process_log_exit("UnixProcessGlue_recreate()");
    return process_ConvertPointerTo64(data);
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_id(JNIEnv* env, jobject,
                                                                              jlong handle) {
    process_log_entry("UnixProcessGlue_id()");
    UnixProcessData* data = record_of(handle);
    char text[kPidTextSize];
    if (process_stringConverterToUTF8(text, data->pid, sizeof text) == nullptr)
        copy_bounded(text, data->pid, sizeof text);
    process_log_exit("UnixProcessGlue_id()");
    return env->NewStringUTF(text);
}
