#include "support/fake_jni.h"

#include <algorithm>
#include <deque>

namespace {
// Java values are plain C++ objects, each kind in a deque of its own (which never moves what it holds).
using FakeString = std::u16string;
using FakeBytes = std::string;
using FakeArray = std::vector<jobject>;
using FakeInts = std::vector<jint>;
using FakeLongs = std::vector<jlong>;
using FakeClass = std::string;

FakeJni* current = nullptr;
std::deque<FakeString> strings;
std::deque<FakeBytes> byteArrays;
std::deque<FakeArray> arrays;
std::deque<FakeInts> intArrays;
std::deque<FakeLongs> longArrays;
std::deque<FakeClass> classes;

template <class Fake, class Handle> Fake& fake(Handle handle) {
    return *reinterpret_cast<Fake*>(handle);
}

template <class Fake, class Handle> Handle keep(std::deque<Fake>& kind, Fake value) {
    kind.push_back(std::move(value));
    return reinterpret_cast<Handle>(&kind.back());
}

// UTF-8 as the tests write it, into the UTF-16 units a Java string holds.
std::u16string units_of(const std::string& text) {
    std::u16string units;
    for (size_t i = 0; i < text.size();) {
        auto byte = static_cast<unsigned char>(text[i]);
        int length = byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
        char32_t cp = length == 1 ? byte : byte & (0x3F >> (length - 1));
        for (int k = 1; k < length; ++k)
            cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        if (cp >= 0x10000) {
            units.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            units.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            units.push_back(static_cast<char16_t>(cp));
        }
        i += static_cast<size_t>(length);
    }
    return units;
}

jclass JNICALL find_class(JNIEnv*, const char* name) {
    if (current->missingClasses.count(name) != 0) return nullptr;
    return keep<FakeClass, jclass>(classes, name);
}
jint JNICALL throw_new(JNIEnv*, jclass cls, const char* message) {
    current->thrown.push_back({fake<FakeClass>(cls), message});
    return 0;
}
jboolean JNICALL exception_check(JNIEnv*) {
    return JNI_FALSE;
}
jsize JNICALL get_string_length(JNIEnv*, jstring s) {
    return static_cast<jsize>(fake<FakeString>(s).size());
}
const jchar* JNICALL get_string_critical(JNIEnv*, jstring s, jboolean*) {
    if (current->failStringChars) return nullptr;
    ++current->outstandingChars;
    return reinterpret_cast<const jchar*>(fake<FakeString>(s).data());
}
void JNICALL release_string_critical(JNIEnv*, jstring, const jchar*) {
    --current->outstandingChars;
}
jsize JNICALL get_array_length(JNIEnv*, jarray a) {
    // The kinds of arrays are told apart by where they live.
    auto in = [a](const auto& kind) {
        auto here = [a](const auto& value) { return static_cast<const void*>(&value) == a; };
        return std::any_of(kind.begin(), kind.end(), here);
    };
    if (in(byteArrays)) return static_cast<jsize>(fake<FakeBytes>(a).size());
    if (in(intArrays)) return static_cast<jsize>(fake<FakeInts>(a).size());
    if (in(longArrays)) return static_cast<jsize>(fake<FakeLongs>(a).size());
    return static_cast<jsize>(fake<FakeArray>(a).size());
}
jobject JNICALL get_object_array_element(JNIEnv*, jobjectArray a, jsize i) {
    return fake<FakeArray>(a).at(static_cast<size_t>(i));
}
void JNICALL delete_local_ref(JNIEnv*, jobject) {}
jbyte* JNICALL get_byte_array_elements(JNIEnv*, jbyteArray a, jboolean*) {
    if (current->failStringChars) return nullptr;
    ++current->outstandingChars;
    return reinterpret_cast<jbyte*>(fake<FakeBytes>(a).data());
}
void JNICALL release_byte_array_elements(JNIEnv*, jbyteArray, jbyte*, jint) {
    --current->outstandingChars;
}
void JNICALL get_int_array_region(JNIEnv*, jintArray a, jsize start, jsize length, jint* out) {
    std::copy_n(fake<FakeInts>(a).begin() + start, length, out);
}
void JNICALL get_long_array_region(JNIEnv*, jlongArray a, jsize start, jsize length, jlong* out) {
    std::copy_n(fake<FakeLongs>(a).begin() + start, length, out);
}
void JNICALL set_long_array_region(JNIEnv*, jlongArray a, jsize start, jsize length, const jlong* in) {
    std::copy_n(in, length, fake<FakeLongs>(a).begin() + start);
}
jbyteArray JNICALL new_byte_array(JNIEnv*, jsize length) {
    if (current->failNewArrays) return nullptr;
    return keep<FakeBytes, jbyteArray>(byteArrays, std::string(static_cast<size_t>(length), '\0'));
}
void JNICALL set_byte_array_region(JNIEnv*, jbyteArray a, jsize start, jsize length, const jbyte* bytes) {
    fake<FakeBytes>(a).replace(static_cast<size_t>(start), static_cast<size_t>(length),
                               reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
}
} // namespace

FakeJni::FakeJni() {
    current = this;
    table_.FindClass = find_class;
    table_.ThrowNew = throw_new;
    table_.ExceptionCheck = exception_check;
    table_.GetStringLength = get_string_length;
    table_.GetStringCritical = get_string_critical;
    table_.ReleaseStringCritical = release_string_critical;
    table_.GetArrayLength = get_array_length;
    table_.GetObjectArrayElement = get_object_array_element;
    table_.DeleteLocalRef = delete_local_ref;
    table_.GetByteArrayElements = get_byte_array_elements;
    table_.ReleaseByteArrayElements = release_byte_array_elements;
    table_.NewByteArray = new_byte_array;
    table_.GetIntArrayRegion = get_int_array_region;
    table_.GetLongArrayRegion = get_long_array_region;
    table_.SetLongArrayRegion = set_long_array_region;
    table_.SetByteArrayRegion = set_byte_array_region;
    env_.functions = &table_;
}

FakeJni::~FakeJni() {
    current = nullptr;
    strings.clear();
    byteArrays.clear();
    arrays.clear();
    intArrays.clear();
    longArrays.clear();
    classes.clear();
}

jstring FakeJni::string(const std::string& text) {
    return keep<FakeString, jstring>(strings, units_of(text));
}

jbyteArray FakeJni::bytes(const std::string& raw) {
    return keep<FakeBytes, jbyteArray>(byteArrays, raw);
}

jintArray FakeJni::ints(const std::vector<jint>& values) {
    return keep<FakeInts, jintArray>(intArrays, values);
}

jlongArray FakeJni::longs(const std::vector<jlong>& values) {
    return keep<FakeLongs, jlongArray>(longArrays, values);
}

std::vector<jlong> FakeJni::values(jlongArray array) {
    return fake<FakeLongs>(array);
}

std::string FakeJni::raw(jbyteArray array) {
    return fake<FakeBytes>(array);
}

jobjectArray FakeJni::array(const std::vector<jobject>& elements) {
    return keep<FakeArray, jobjectArray>(arrays, elements);
}
