// The library's version, which the Java loader compares with its own before using the library.
#include <jni.h>

#include "com_norvane_quillon_process_NativeLibrary.h"

#ifndef QUILLON_VERSION
#error "QUILLON_VERSION must name the project version"
#endif

extern "C" JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_NativeLibrary_version(JNIEnv* env, jclass) {
    return env->NewStringUTF(QUILLON_VERSION);
}
