#include "support/fake_jni.h"

#include <deque>

namespace {
struct FakeString {
    std::string text;
};
struct FakeBytes {
    std::string raw;
};
struct FakeArray {
    std::vector<jobject> elements;
};
struct FakeClass {
    std::string name;
};

FakeJni* current = nullptr;
std::deque<FakeString> strings;
std::deque<FakeBytes> byteArrays;
std::deque<FakeArray> arrays;
std::deque<FakeClass> classes;

jclass JNICALL find_class(JNIEnv*, const char* name) {
    if (current->missingClasses.count(name) != 0) return nullptr;
    classes.push_back({name});
    return reinterpret_cast<jclass>(&classes.back());
}
jint JNICALL throw_new(JNIEnv*, jclass cls, const char* message) {
    current->thrown.push_back({reinterpret_cast<FakeClass*>(cls)->name, message});
    return 0;
}
const char* JNICALL get_string_utf_chars(JNIEnv*, jstring s, jboolean*) {
    if (current->failStringChars) return nullptr;
    ++current->outstandingChars;
    return reinterpret_cast<FakeString*>(s)->text.c_str();
}
void JNICALL release_string_utf_chars(JNIEnv*, jstring, const char*) {
    --current->outstandingChars;
}
jsize JNICALL get_array_length(JNIEnv*, jarray a) {
    // Byte arrays and object arrays are told apart by where they live.
    for (auto& bytes : byteArrays)
        if (reinterpret_cast<jarray>(&bytes) == a) return static_cast<jsize>(bytes.raw.size());
    return static_cast<jsize>(reinterpret_cast<FakeArray*>(a)->elements.size());
}
jobject JNICALL get_object_array_element(JNIEnv*, jobjectArray a, jsize i) {
    return reinterpret_cast<FakeArray*>(a)->elements.at(static_cast<size_t>(i));
}
jbyte* JNICALL get_byte_array_elements(JNIEnv*, jbyteArray a, jboolean*) {
    if (current->failStringChars) return nullptr;
    ++current->outstandingChars;
    return reinterpret_cast<jbyte*>(reinterpret_cast<FakeBytes*>(a)->raw.data());
}
void JNICALL release_byte_array_elements(JNIEnv*, jbyteArray, jbyte*, jint) {
    --current->outstandingChars;
}
} // namespace

FakeJni::FakeJni() {
    current = this;
    table_.FindClass = find_class;
    table_.ThrowNew = throw_new;
    table_.GetStringUTFChars = get_string_utf_chars;
    table_.ReleaseStringUTFChars = release_string_utf_chars;
    table_.GetArrayLength = get_array_length;
    table_.GetObjectArrayElement = get_object_array_element;
    table_.GetByteArrayElements = get_byte_array_elements;
    table_.ReleaseByteArrayElements = release_byte_array_elements;
    env_.functions = &table_;
}

FakeJni::~FakeJni() {
    current = nullptr;
    strings.clear();
    byteArrays.clear();
    arrays.clear();
    classes.clear();
}

jstring FakeJni::string(const std::string& text) {
    strings.push_back({text});
    return reinterpret_cast<jstring>(&strings.back());
}

jbyteArray FakeJni::bytes(const std::string& raw) {
    byteArrays.push_back({raw});
    return reinterpret_cast<jbyteArray>(&byteArrays.back());
}

jobjectArray FakeJni::array(const std::vector<jobject>& elements) {
    arrays.push_back({elements});
    return reinterpret_cast<jobjectArray>(&arrays.back());
}
