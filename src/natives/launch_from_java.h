// What the natives that launch share: the texts of a request taken from Java.
#pragma once

#include <jni.h>

#include "boundary/jni_support.h"
#include "launch/launch_internal.h"

// Takes strings and string arrays from Java into the request's arena, as native text. A string with a
// NUL inside is refused (EINVAL), as are arrays too short for what they must hold.
class JavaTexts {
  public:
    JavaTexts(JNIEnv* env, Arena& arena) : env_(env), arena_(arena) {}
    // Null for a null reference, or when the conversion failed (see ok()).
    const char* text(jstring string);
    // A null-terminated vector with an entry per element (null for a null element).
    char** array(jobjectArray array);
    bool ok() const { return result_ == PROC_SUCCESS; }
    void refuse(int result, int sysErr) {
        if (ok()) {
            result_ = result;
            sysErr_ = sysErr;
        }
    }
    // Raises the failure, unless the JVM has an exception pending already.
    void raise(const char* message) const;

  private:
    JNIEnv* env_;
    Arena& arena_;
    int result_ = PROC_SUCCESS;
    int sysErr_ = 0;
};
