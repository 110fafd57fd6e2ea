// A hand-made JNIEnv for the boundary code: strings and arrays are plain C++ objects, and the JVM's
// failures (a class that can't be found, a string that can't be read) are switches.
#pragma once

#include <jni.h>
#include <set>
#include <string>
#include <vector>

struct FakeJni {
    struct Thrown {
        std::string className;
        std::string message;
    };

    FakeJni();
    ~FakeJni();
    JNIEnv* env() { return &env_; }

    // Java values backed by this fake.
    jstring string(const std::string& text); // from UTF-8
    jbyteArray bytes(const std::string& raw);
    jobjectArray array(const std::vector<jobject>& elements);
    jintArray ints(const std::vector<jint>& values);
    jlongArray longs(const std::vector<jlong>& values);
    // The values of an array, as the code under test left them.
    static std::vector<jlong> values(jlongArray array);

    // The bytes of an array made by the code under test.
    static std::string raw(jbyteArray array);

    std::set<std::string> missingClasses;
    bool failStringChars = false;
    bool failNewArrays = false; // the heap is full
    std::vector<Thrown> thrown;
    int outstandingChars = 0;

  private:
    JNINativeInterface_ table_{};
    JNIEnv env_{};
};
