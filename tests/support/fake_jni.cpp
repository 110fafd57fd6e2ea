#include "support/fake_jni.h"

#include <algorithm>
#include <deque>

namespace {
struct FakeString {
    std::u16string units;
};
struct FakeBytes {
    std::string raw;
};
struct FakeArray {
    std::vector<jobject> elements;
};
struct FakeInts {
    std::vector<jint> values;
};
struct FakeLongs {
    std::vector<jlong> values;
};
struct FakeClass {
    std::string name;
};

FakeJni* current = nullptr;
std::deque<FakeString> strings;
std::deque<FakeBytes> byteArrays;
std::deque<FakeArray> arrays;
std::deque<FakeInts> intArrays;
std::deque<FakeLongs> longArrays;
std::deque<FakeClass> classes;

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
    classes.push_back({name});
    return reinterpret_cast<jclass>(&classes.back());
}
jint JNICALL throw_new(JNIEnv*, jclass cls, const char* message) {
    current->thrown.push_back({reinterpret_cast<FakeClass*>(cls)->name, message});
    return 0;
}
jboolean JNICALL exception_check(JNIEnv*) {
    return JNI_FALSE;
}
jsize JNICALL get_string_length(JNIEnv*, jstring s) {
    return static_cast<jsize>(reinterpret_cast<FakeString*>(s)->units.size());
}
const jchar* JNICALL get_string_critical(JNIEnv*, jstring s, jboolean*) {
    if (current->failStringChars) return nullptr;
    ++current->outstandingChars;
    return reinterpret_cast<const jchar*>(reinterpret_cast<FakeString*>(s)->units.data());
}
void JNICALL release_string_critical(JNIEnv*, jstring, const jchar*) {
    --current->outstandingChars;
}
jsize JNICALL get_array_length(JNIEnv*, jarray a) {
    // Byte arrays and object arrays are told apart by where they live.
    for (auto& bytes : byteArrays)
        if (reinterpret_cast<jarray>(&bytes) == a) return static_cast<jsize>(bytes.raw.size());
    for (auto& ints : intArrays)
        if (reinterpret_cast<jarray>(&ints) == a) return static_cast<jsize>(ints.values.size());
    for (auto& longs : longArrays)
        if (reinterpret_cast<jarray>(&longs) == a) return static_cast<jsize>(longs.values.size());
    return static_cast<jsize>(reinterpret_cast<FakeArray*>(a)->elements.size());
}
jobject JNICALL get_object_array_element(JNIEnv*, jobjectArray a, jsize i) {
    return reinterpret_cast<FakeArray*>(a)->elements.at(static_cast<size_t>(i));
}
void JNICALL delete_local_ref(JNIEnv*, jobject) {}
jbyte* JNICALL get_byte_array_elements(JNIEnv*, jbyteArray a, jboolean*) {
    if (current->failStringChars) return nullptr;
    ++current->outstandingChars;
    return reinterpret_cast<jbyte*>(reinterpret_cast<FakeBytes*>(a)->raw.data());
}
void JNICALL release_byte_array_elements(JNIEnv*, jbyteArray, jbyte*, jint) {
    --current->outstandingChars;
}
void JNICALL get_int_array_region(JNIEnv*, jintArray a, jsize start, jsize length, jint* out) {
    auto& values = reinterpret_cast<FakeInts*>(a)->values;
    std::copy_n(values.begin() + start, length, out);
}
void JNICALL get_long_array_region(JNIEnv*, jlongArray a, jsize start, jsize length, jlong* out) {
    auto& values = reinterpret_cast<FakeLongs*>(a)->values;
    std::copy_n(values.begin() + start, length, out);
}
void JNICALL set_long_array_region(JNIEnv*, jlongArray a, jsize start, jsize length, const jlong* in) {
    std::copy_n(in, length, reinterpret_cast<FakeLongs*>(a)->values.begin() + start);
}
jbyteArray JNICALL new_byte_array(JNIEnv*, jsize length) {
    if (current->failNewArrays) return nullptr;
    byteArrays.push_back({std::string(static_cast<size_t>(length), '\0')});
    return reinterpret_cast<jbyteArray>(&byteArrays.back());
}
void JNICALL set_byte_array_region(JNIEnv*, jbyteArray a, jsize start, jsize length, const jbyte* bytes) {
    reinterpret_cast<FakeBytes*>(a)->raw.replace(static_cast<size_t>(start), static_cast<size_t>(length),
                                                 reinterpret_cast<const char*>(bytes),
                                                 static_cast<size_t>(length));
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
    strings.push_back({units_of(text)});
    return reinterpret_cast<jstring>(&strings.back());
}

jstring FakeJni::utf16(const std::u16string& units) {
    strings.push_back({units});
    return reinterpret_cast<jstring>(&strings.back());
}

jbyteArray FakeJni::bytes(const std::string& raw) {
    byteArrays.push_back({raw});
    return reinterpret_cast<jbyteArray>(&byteArrays.back());
}

jintArray FakeJni::ints(const std::vector<jint>& values) {
    intArrays.push_back({values});
    return reinterpret_cast<jintArray>(&intArrays.back());
}

jlongArray FakeJni::longs(const std::vector<jlong>& values) {
    longArrays.push_back({values});
    return reinterpret_cast<jlongArray>(&longArrays.back());
}

std::vector<jlong> FakeJni::values(jlongArray array) {
    return reinterpret_cast<FakeLongs*>(array)->values;
}

std::string FakeJni::raw(jbyteArray array) {
    return reinterpret_cast<FakeBytes*>(array)->raw;
}

jobjectArray FakeJni::array(const std::vector<jobject>& elements) {
    arrays.push_back({elements});
    return reinterpret_cast<jobjectArray>(&arrays.back());
}
