// Conversion between the native code set (nl_langinfo) and UTF-8 through iconv.
#include <cstring>
#include <iconv.h>
#include <langinfo.h>

#include "quillon/runtime.h"
#include "runtime/support.h"

namespace {
const char* native_codeset() {
    const char* codeset = nl_langinfo(CODESET);
    return (codeset == nullptr || *codeset == 0) ? "ISO-8859-1" : codeset;
}

// Code sets whose text passes towards UTF-8 unchanged.
bool is_plain_towards_utf8(const char* codeset) {
    static const char* const plain[] = {"C",        "POSIX",      "UTF-8",     "ASCII",
                                        "US-ASCII", "ISO-8859-1", "ISO8859-1", "iso88591"};
    for (const char* name : plain)
        if (strcmp(codeset, name) == 0) return true;
    return false;
}

// strncpy of the whole buffer: the rest of dst is zero-filled, and a text that doesn't fit is cut.
char* plain_copy(char* dst, const char* src, size_t size) {
    if (size == 0) return nullptr;
    strncpy(dst, src, size);
    dst[size - 1] = 0;
    return dst;
}

int iconv_valid(iconv_t cd) {
    return cd == reinterpret_cast<iconv_t>(-1) ? 0 : 1;
}
} // namespace

char* utf8_or_as_is(char* dst, const char* src, size_t size) {
    if (process_stringConverterToUTF8(dst, src, size) == nullptr) copy_bounded(dst, src, size);
    dst[size - 1] = 0;
    return dst;
}

QUILLON_API char* process_stringConverterToUTF8(char* dst, const char* src, size_t size) {
    const char* codeset = native_codeset();
    if (src == nullptr || dst == nullptr) return nullptr;
    if (is_plain_towards_utf8(codeset)) return plain_copy(dst, src, size);
    return process_stringConverter(dst, src, size, codeset, "UTF-8");
}

QUILLON_API char* process_stringConverterFromUTF8(char* dst, const char* src, size_t size) {
    const char* codeset = native_codeset();
    if (src == nullptr || dst == nullptr) return nullptr;
    if (strcmp(codeset, "UTF-8") == 0) return plain_copy(dst, src, size);
    return process_stringConverter(dst, src, size, "UTF-8", codeset);
}

QUILLON_API char* process_stringConverter(char* dst, const char* src, size_t size, const char* fromCode,
                                          const char* toCode) {
    if (src == nullptr || dst == nullptr || size == 0) return nullptr;
    if (fromCode == nullptr) fromCode = "ISO-8859-1";
    if (toCode == nullptr) toCode = "ISO-8859-1";
    if (strcmp(fromCode, toCode) == 0) return plain_copy(dst, src, size);

    size_t inLeft = strlen(src) + 1;
    size_t outLeft = size;
    dst[0] = 0;
    iconv_t cd = iconv_open(toCode, fromCode);
    if (!iconv_valid(cd)) return nullptr;
    char* in = const_cast<char*>(src);
    char* out = dst;
    size_t converted = iconv(cd, &in, &inLeft, &out, &outLeft);
    dst[size - 1] = 0;
    iconv_close(cd);
    return converted == static_cast<size_t>(-1) ? nullptr : dst;
}
