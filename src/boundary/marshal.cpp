// The exported conversions of Java strings and arrays into native text in the native code page.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "boundary/jni_support.h"
#include "quillon/boundary.h"
#include "quillon/runtime.h"

namespace {
// A native string array remembers its length in a hidden slot in front of the vector it hands out,
// so that ReleaseCStrArray also frees the strings behind a null entry.
char** allocate_string_array(size_t count) {
    auto* block = static_cast<char**>(malloc((count + 2) * sizeof(char*)));
    if (block == nullptr) return nullptr;
    memset(block, 0, (count + 2) * sizeof(char*));
    block[0] = reinterpret_cast<char*>(static_cast<uintptr_t>(count));
    return block + 1;
}

size_t remembered_length(char** array) {
    return reinterpret_cast<uintptr_t>(array[-1]);
}

char* to_native(char* dst, const char* utf8, size_t size, const char* fallbackMessage)
    __attribute__((format(printf, 4, 0)));
char* to_native(char* dst, const char* utf8, size_t size, const char* fallbackMessage) {
    if (process_stringConverterFromUTF8(dst, utf8, size) == nullptr) {
        copy_bounded(dst, utf8, size);
        process_log(fallbackMessage, dst);
    }
    return dst;
}

char* string_element(JNIEnv* env, jstring element) {
    JavaUtf8 utf8(env, element);
    return utf8.ok() ? native_from_utf8(utf8.c_str(), utf8.length()) : nullptr;
}

char* byte_array_element(JNIEnv* env, jbyteArray element) {
    jsize length = env->GetArrayLength(element);
    jbyte* bytes = env->GetByteArrayElements(element, nullptr);
    if (bytes == nullptr) return nullptr;
    auto* entry = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
    if (entry != nullptr) {
        strncpy(entry, reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
        entry[length] = 0;
    }
    env->ReleaseByteArrayElements(element, bytes, 0);
    return entry;
}

// A native string array with one entry per element; a null element or a failed one gives a null entry.
template <typename Element>
char** convert_elements(JNIEnv* env, jobjectArray array, char* (*convert)(JNIEnv*, Element)) {
    jsize count = env->GetArrayLength(array);
    char** result = allocate_string_array(static_cast<size_t>(count));
    if (result == nullptr) return nullptr;
    for (jsize i = 0; i < count; ++i) {
        LocalRef<jobject> element(env, env->GetObjectArrayElement(array, i));
        if (element.get() != nullptr) result[i] = convert(env, static_cast<Element>(element.get()));
    }
    return result;
}
} // namespace

QUILLON_API char* process_GetNativeStringFromJString(JNIEnv* env, char* dst, jstring string, size_t size) {
    JavaUtf8 utf8(env, string);
    if (!utf8.ok()) {
        dst[0] = 0;
        return dst;
    }
    return to_native(
        dst, utf8.c_str(), size,
        "Failed to convert Java String to native codepage.  Will attempt to just use UTF-8 form: [%s]\n");
}

QUILLON_API char* process_GetNativeStringFromArray(JNIEnv* env, char* dst, jbyteArray bytes, size_t size) {
    jbyte* raw = env->GetByteArrayElements(bytes, nullptr);
    if (raw == nullptr) {
        dst[0] = 0;
        return dst;
    }
    to_native(
        dst, reinterpret_cast<const char*>(raw), size,
        "Failed to convert Java Byte Array to native codepage.  Will attempt to just use UTF-8 form: [%s]\n");
    env->ReleaseByteArrayElements(bytes, raw, 0);
    return dst;
}

QUILLON_API char** javaStrArrayToCStrArray(JNIEnv* env, jobjectArray array) {
    return convert_elements<jstring>(env, array, string_element);
}

QUILLON_API char** jByteArrArrayToCStrArray(JNIEnv* env, jobjectArray array) {
    return convert_elements<jbyteArray>(env, array, byte_array_element);
}

QUILLON_API void ReleaseCStrArray(char** array) {
    if (array == nullptr) return;
    size_t count = remembered_length(array);
    for (size_t i = 0; i < count; ++i)
        free(array[i]);
    free(array - 1);
}
