// The native environment for Java: one variable, or every key=value entry of environ.
#include <cstdlib>

#include "com_norvane_quillon_process_EnvUtilGlue.h"
#include "quillon/boundary.h"
#include "quillon/runtime.h"

extern char** environ;

namespace {
constexpr size_t kTextSize = 8192;
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_EnvUtilGlue_native_1getenv(JNIEnv* env, jobject,
                                                                                      jstring name) {
    char nativeName[kTextSize];
    char utf8Value[kTextSize];
    const char* value = nullptr;
    if (name != nullptr) value = getenv(process_GetNativeStringFromJString(env, nativeName, name, kTextSize));
    if (value == nullptr) value = "";
    const char* converted = process_stringConverterToUTF8(utf8Value, value, kTextSize);
    return env->NewStringUTF(converted != nullptr ? converted : value);
}

JNIEXPORT jobjectArray JNICALL Java_com_norvane_quillon_process_EnvUtilGlue_native_1getentireenv(JNIEnv* env,
                                                                                                 jobject) {
    char** entries = environ;
    if (entries == nullptr) return nullptr;
    jsize count = 0;
    while (entries[count] != nullptr)
        ++count;
    char className[256];
    copy_bounded(className, "java/lang/String", sizeof className);
    if (count == 0) return nullptr;

    // Every JNI call is checked: after a failure an exception is pending and nothing more is called.
    jclass stringClass = env->FindClass(className);
    if (stringClass == nullptr) return nullptr;
    jstring empty = env->NewStringUTF("");
    if (empty == nullptr) return nullptr;
    jobjectArray result = env->NewObjectArray(count, stringClass, empty);
    if (result == nullptr) return nullptr;
    char utf8Entry[kTextSize];
    for (jsize i = 0; i < count; ++i) {
        const char* converted = process_stringConverterToUTF8(utf8Entry, entries[i], kTextSize);
        jstring element = env->NewStringUTF(converted != nullptr ? converted : entries[i]);
        if (element == nullptr) return nullptr;
        env->SetObjectArrayElement(result, i, element);
    }
    return result;
}
