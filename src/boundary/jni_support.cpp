#include "boundary/jni_support.h"

#include <cstdint>
#include <cstring>
#include <langinfo.h>

#include "quillon/runtime.h"

namespace {
constexpr char16_t kReplacement = 0xFFFD;

bool is_high_surrogate(jchar c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool is_low_surrogate(jchar c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// Appends the UTF-8 form of one code point.
char* put_utf8(char* out, uint32_t cp) {
    if (cp < 0x80) {
        *out++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *out++ = static_cast<char>(0xC0 | (cp >> 6));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *out++ = static_cast<char>(0xE0 | (cp >> 12));
        *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | (cp >> 18));
        *out++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return out;
}

// Decodes one UTF-8 sequence at `in`; a malformed one gives U+FFFD and consumes its valid prefix.
uint32_t next_code_point(const unsigned char*& in, const unsigned char* end) {
    unsigned char lead = *in++;
    if (lead < 0x80) return lead;
    int more;
    uint32_t cp;
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        more = 1;
        cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        more = 2;
        cp = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        more = 3;
        cp = lead & 0x07;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return kReplacement;
    }
    for (int i = 0; i < more; ++i) {
        if (in == end || *in < low || *in > high) return kReplacement;
        cp = (cp << 6) | (*in++ & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return cp;
}
} // namespace

JavaUtf8::JavaUtf8(JNIEnv* env, jstring string) {
    jsize units = env->GetStringLength(string);
    // Three bytes per UTF-16 unit at most: a surrogate pair (two units) becomes four bytes.
    text_.reset(static_cast<char*>(malloc(static_cast<size_t>(units) * 3 + 1)));
    if (text_ == nullptr || units == 0) {
        if (text_ != nullptr) text_.get()[0] = 0;
        return;
    }
    const jchar* chars = env->GetStringCritical(string, nullptr);
    if (chars == nullptr) {
        text_.reset();
        return;
    }
    char* out = text_.get();
    for (jsize i = 0; i < units; ++i) {
        jchar c = chars[i];
        uint32_t cp = c;
        if (is_high_surrogate(c) && i + 1 < units && is_low_surrogate(chars[i + 1]))
            cp = 0x10000 + ((c - 0xD800u) << 10) + (chars[++i] - 0xDC00u);
        else if (is_high_surrogate(c) || is_low_surrogate(c))
            cp = '?';
        if (cp == 0) hasNul_ = true;
        out = put_utf8(out, cp);
    }
    env->ReleaseStringCritical(string, chars);
    *out = 0;
    length_ = static_cast<size_t>(out - text_.get());
}

char* native_from_utf8(const char* utf8, size_t length) {
    // Code pages in use never take more than four bytes where UTF-8 takes one.
    size_t size = (length + 1) * 4;
    auto* text = static_cast<char*>(malloc(size));
    if (text == nullptr) return nullptr;
    if (process_stringConverterFromUTF8(text, utf8, size) == nullptr) {
        memcpy(text, utf8, length + 1);
        process_log("Failed to convert Java String to native codepage.  Will attempt to just use UTF-8 "
                    "form: [%s]\n",
                    text);
    }
    return text;
}

bool native_text(JNIEnv* env, jstring string, Arena& arena, char** text, bool* hasNul) {
    JavaUtf8 utf8(env, string);
    if (!utf8.ok()) return false;
    *hasNul = utf8.has_nul();
    char* converted = native_from_utf8(utf8.c_str(), utf8.length());
    if (converted == nullptr || !arena.adopt(converted)) return false;
    *text = converted;
    return true;
}

jstring java_string_from_utf8(JNIEnv* env, const char* utf8) {
    size_t length = strlen(utf8);
    MallocPtr<jchar> units(static_cast<jchar*>(malloc((length + 1) * sizeof(jchar))));
    if (units == nullptr) {
        throw_java(env, "java/lang/OutOfMemoryError", "native string");
        return nullptr;
    }
    auto* in = reinterpret_cast<const unsigned char*>(utf8);
    const auto* end = in + length;
    jsize count = 0;
    while (in < end) {
        uint32_t cp = next_code_point(in, end);
        if (cp >= 0x10000) {
            units.get()[count++] = static_cast<jchar>(0xD800 + ((cp - 0x10000) >> 10));
            units.get()[count++] = static_cast<jchar>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        } else {
            units.get()[count++] = static_cast<jchar>(cp);
        }
    }
    return env->NewString(units.get(), count);
}

jstring java_string(JNIEnv* env, const char* nativeText) {
    size_t size = strlen(nativeText) * 4 + 1;
    MallocPtr<char> utf8(static_cast<char*>(malloc(size)));
    if (utf8 == nullptr) {
        throw_java(env, "java/lang/OutOfMemoryError", "native string");
        return nullptr;
    }
    return java_string_from_utf8(env, utf8_or_as_is(utf8.get(), nativeText, size));
}

void throw_java(JNIEnv* env, const char* className, const char* message) {
    jclass cls = env->FindClass(className);
    if (cls != nullptr) env->ThrowNew(cls, message);
}
