// Java boundary: library entry, exceptions by result code, handles and string marshalling.
#pragma once

#include <cstddef>
#include <jni.h>

#include "quillon/export.h"
#include "quillon/result_codes.h"

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
