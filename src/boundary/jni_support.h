// What the natives share at the JNI boundary: Java strings as real UTF-8 in both directions, native
// text in the native code page, local references that go away on every path, plain Java exceptions.
#pragma once

#include <cstddef>
#include <jni.h>

#include "runtime/arena.h"
#include "runtime/support.h"

// The standard UTF-8 form of a Java string (not the JVM's modified form): a supplementary character is
// four bytes, an unpaired surrogate becomes '?', a NUL stays a NUL and is noted.
class JavaUtf8 {
  public:
    JavaUtf8(JNIEnv* env, jstring string);
    // False when memory ran out (or the JVM failed, with its exception pending).
    bool ok() const { return text_ != nullptr; }
    const char* c_str() const { return text_.get(); }
    size_t length() const { return length_; }
    bool has_nul() const { return hasNul_; }

  private:
    MallocPtr<char> text_;
    size_t length_ = 0;
    bool hasNul_ = false;
};

// UTF-8 text in the native code page, from malloc; the UTF-8 itself (with a trace line) when the code
// page can't express it. Null when memory ran out.
char* native_from_utf8(const char* utf8, size_t length);

// A Java string's native text in `arena`. False when memory ran out; *hasNul tells of a NUL inside.
bool native_text(JNIEnv* env, jstring string, Arena& arena, char** text, bool* hasNul);

// A Java string of native text (converted to UTF-8 first; bytes that are no UTF-8 become U+FFFD).
// Null with an exception pending when the JVM failed.
jstring java_string(JNIEnv* env, const char* nativeText);
jstring java_string_from_utf8(JNIEnv* env, const char* utf8);

// Throws a Java exception of a class outside the library's result codes.
void throw_java(JNIEnv* env, const char* className, const char* message);

// A local reference, deleted when its owner goes: loops over many elements stay within the JVM's
// local reference capacity.
template <typename T> class LocalRef : NoCopy {
  public:
    LocalRef(JNIEnv* env, T ref) : env_(env), ref_(ref) {}
    ~LocalRef() {
        if (ref_ != nullptr) env_->DeleteLocalRef(ref_);
    }
    T get() const { return ref_; }
    T release() {
        T ref = ref_;
        ref_ = nullptr;
        return ref;
    }

  private:
    JNIEnv* env_;
    T ref_;
};
