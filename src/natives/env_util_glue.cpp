// Natives of EnvUtilGlue: the native environment for Java, one variable or every key=value entry, whole.
#include <cstdlib>

#include "boundary/jni_support.h"
#include "com_norvane_quillon_process_EnvUtilGlue.h"

extern char** environ;

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_EnvUtilGlue_native_1getenv(JNIEnv* env, jobject,
                                                                                      jstring name) {
    const char* value = nullptr;
    if (name != nullptr) {
        Arena arena;
        char* nativeName = nullptr;
        bool hasNul = false;
        if (!native_text(env, name, arena, &nativeName, &hasNul)) {
            if (!env->ExceptionCheck()) throw_java(env, "java/lang/OutOfMemoryError", "environment variable name");
            return nullptr;
        }
        if (!hasNul) value = getenv(nativeName); // no variable has a NUL in its name
    }
    return java_string(env, value != nullptr ? value : "");
}

JNIEXPORT jobjectArray JNICALL Java_com_norvane_quillon_process_EnvUtilGlue_native_1getentireenv(JNIEnv* env,
                                                                                                 jobject) {
    char** entries = environ;
    if (entries == nullptr) return nullptr;
    jsize count = 0;
    while (entries[count] != nullptr)
        ++count;
    if (count == 0) return nullptr;

    // After a failed JNI call an exception is pending and nothing more is called.
    LocalRef<jclass> stringClass(env, env->FindClass("java/lang/String"));
    if (stringClass.get() == nullptr) return nullptr;
    LocalRef<jstring> empty(env, env->NewStringUTF(""));
    if (empty.get() == nullptr) return nullptr;
    jobjectArray result = env->NewObjectArray(count, stringClass.get(), empty.get());
    if (result == nullptr) return nullptr;
    for (jsize i = 0; i < count; ++i) {
        LocalRef<jstring> element(env, java_string(env, entries[i]));
        if (element.get() == nullptr) return nullptr;
        env->SetObjectArrayElement(result, i, element.get());
    }
    return result;
}
