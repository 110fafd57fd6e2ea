// Java boundary: result codes, exceptions, handles and string marshalling.
#pragma once

#include <cstddef>
#include <jni.h>

#include "quillon/export.h"

enum : int {
    PROC_SUCCESS = 0,
    PROC_INVALID_PRIORITY = 1,
    PROC_INVALID_GROUP = 2,
    PROC_INVALID_USERNAME = 3,
    PROC_INVALID_DIRECTORY = 4,
    PROC_INVALID_PROCESS_GROUP = 5,
    PROC_INVALID_FILE = 6,
    PROC_HAS_EXITED = 7,
    PROC_STILL_ACTIVE = 8,
    PROC_WAIT_FOR_SELF = 9,
    PROC_SYSTEM_ERR = 10,
    PROC_INVALID_EXECUTABLE = 11,
    PROC_OUT_OF_FILE_HANDLES = 12,
    PROC_OUT_OF_MEMORY = 13,
    PROC_ACCESS_DENIED = 14,
    PROC_NOT_SUPPORTED = 15,
    PROC_CREATE_TIMEOUT = 16,
};

// Size of every exception message buffer of the natives.
constexpr size_t kMessageBufferSize = 1024;

QUILLON_API jint JNI_OnLoad(JavaVM* vm, void* reserved);
QUILLON_API void ThrowException(JNIEnv* env, int code, const char* message, int sysErr);
QUILLON_API int process_strerror_r(int errnum, char* buffer, size_t size);
QUILLON_API jlong process_ConvertPointerTo64(void* pointer);
QUILLON_API void* process_ConvertJlongToPointer(jlong handle);

QUILLON_API char* process_GetNativeStringFromJString(JNIEnv* env, char* dst, jstring string, size_t size);
QUILLON_API char* process_GetNativeStringFromArray(JNIEnv* env, char* dst, jbyteArray bytes, size_t size);
QUILLON_API char** javaStrArrayToCStrArray(JNIEnv* env, jobjectArray array);
QUILLON_API char** jByteArrArrayToCStrArray(JNIEnv* env, jobjectArray array);
QUILLON_API void ReleaseCStrArray(char** array);

// Builds a native's exception message in its own bounded buffer and raises it.
void ThrowWithMessage(JNIEnv* env, int code, const char* text, int sysErr);
