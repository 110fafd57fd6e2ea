// Keys of key=value entries, and the merge that puts a request's path-like value in front of the
// inherited one.
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "quillon/launch.h"
#include "quillon/runtime.h"

extern char** environ;

namespace {
constexpr const char* kAdditiveKeys[] = {"PATH", "LIBPATH", "CLASSPATH", "SHLIB_PATH", "LD_LIBRARY_PATH"};
constexpr size_t kTestKeySize = 1024;
constexpr size_t kMergeKeySize = 256;

// The first entry of a list whose key is `key`, or null.
char* find_entry(const char* key, char** list) {
    for (char** entry = list; *entry != nullptr; ++entry)
        if (TestKeys(key, *entry) == 0) return *entry;
    return nullptr;
}

bool is_additive(const char* entry) {
    for (const char* key : kAdditiveKeys)
        if (TestKeys(entry, key) == 0) return true;
    return false;
}

size_t key_length(const char* entry) {
    return strcspn(entry, "=");
}

// putenv without the environment lock, which another thread may have held at the fork: the child
// owns a private copy of the vector, with room for every entry of the request.
class ChildEnvironment {
  public:
    explicit ChildEnvironment(size_t additions) {
        size_t count = 0;
        while (environ != nullptr && environ[count] != nullptr)
            ++count;
        vector_ = static_cast<char**>(malloc((count + additions + 1) * sizeof(char*)));
        if (vector_ == nullptr) return;
        for (size_t i = 0; i < count; ++i)
            vector_[i] = environ[i];
        vector_[count] = nullptr;
        length_ = count;
        environ = vector_;
    }

    void put(char* entry) {
        if (vector_ == nullptr) {
            putenv(entry);
            return;
        }
        size_t keyLength = key_length(entry);
        for (size_t i = 0; i < length_; ++i) {
            if (strncmp(vector_[i], entry, keyLength) == 0 && vector_[i][keyLength] == '=') {
                if (entry[keyLength] == '=') {
                    vector_[i] = entry;
                } else { // an entry without '=' removes the variable, as putenv does
                    vector_[i] = vector_[--length_];
                    vector_[length_] = nullptr;
                }
                return;
            }
        }
        if (entry[keyLength] != '=') return;
        vector_[length_++] = entry;
        vector_[length_] = nullptr;
    }

  private:
    char** vector_ = nullptr;
    size_t length_ = 0;
};
} // namespace

QUILLON_API void GetKey(const char* entry, char* key, uint64_t size) {
    process_log_entry("GetKey");
    if (entry == nullptr) {
        process_log("Buffer array passed into GetKey was null.\n");
    } else if (size == 1) {
        key[0] = 0;
    } else if (size > 1) {
        size_t length = 0;
        while (entry[length] != 0 && entry[length] != '=' && length < size - 2)
            ++length;
        memcpy(key, entry, length);
        key[length] = 0;
        process_log("Key array was size: [%d].  Key terminated at array index [%d]\n", static_cast<int>(size),
                    static_cast<int>(length));
        process_log("Key obtained was: [%s]\n", key);
    }
    process_log_exit("GetKey");
}

QUILLON_API int TestKeys(const char* first, const char* second) {
    process_log_entry("TestKeys");
    int result;
    if (first == nullptr || second == nullptr) {
        result = first == nullptr ? (second == nullptr ? 0 : 1) : -1;
    } else {
        char firstKey[kTestKeySize];
        char secondKey[kTestKeySize];
        GetKey(first, firstKey, sizeof firstKey);
        GetKey(second, secondKey, sizeof secondKey);
        result = strcasecmp(firstKey, secondKey);
    }
    process_log_exit("TestKeys");
    return result;
}

QUILLON_API int GenerateAdditiveString(const char* key, char** first, char** second, char** third,
                                       char** merged) {
    if (merged == nullptr) return 0;
    *merged = nullptr;
    char* found[3] = {};
    char** lists[3] = {first, second, third};
    int holders = 0;
    size_t total = 0;
    for (int i = 0; i < 3; ++i) {
        if (lists[i] == nullptr || (found[i] = find_entry(key, lists[i])) == nullptr) continue;
        ++holders;
        total += strlen(found[i]);
    }
    if (holders < 2) return 1;

    auto* text = static_cast<char*>(malloc(total));
    if (text == nullptr) return 0;
    char* out = stpcpy(stpcpy(text, key), "=");
    bool wroteValue = false;
    for (char* entry : found) {
        const char* equals = entry != nullptr ? strchr(entry, '=') : nullptr;
        if (equals == nullptr) continue; // an entry without a value adds nothing, not an empty element
        if (wroteValue) out = stpcpy(out, ":");
        out = stpcpy(out, equals + 1);
        wroteValue = true;
    }
    *merged = text;
    return 1;
}

void MergeEnvironment(char** environment) {
    size_t additions = 0;
    while (environment[additions] != nullptr)
        ++additions;
    ChildEnvironment target(additions);
    for (char** entry = environment; *entry != nullptr; ++entry) {
        if (!is_additive(*entry)) {
            target.put(*entry);
            continue;
        }
        char key[kMergeKeySize];
        char* merged = nullptr;
        GetKey(*entry, key, sizeof key);
        if (GenerateAdditiveString(key, environment, environ, nullptr, &merged) == 0) continue;
        target.put(merged != nullptr ? merged : *entry);
    }
}
