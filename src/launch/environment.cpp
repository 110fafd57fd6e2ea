// Keys of key=value entries, the merge that puts a request's path-like value in front of the inherited
// one, and the environment of a new process, built in the launching thread.
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "launch/launch_internal.h"
#include "quillon/launch.h"

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

size_t count_entries(char* const* list) {
    size_t count = 0;
    while (list != nullptr && list[count] != nullptr)
        ++count;
    return count;
}

// An environment vector changed the way putenv changes environ: an entry replaces the one with the same
// key (compared with case) or joins the end; an entry without '=' removes its key.
class EnvironmentVector {
  public:
    EnvironmentVector(char** vector, size_t length) : vector_(vector), length_(length) {}

    void put(char* entry) {
        size_t keyLength = strcspn(entry, "=");
        for (size_t i = 0; i < length_; ++i) {
            if (strncmp(vector_[i], entry, keyLength) != 0 || vector_[i][keyLength] != '=') continue;
            if (entry[keyLength] == '=') {
                vector_[i] = entry;
            } else {
                memmove(vector_ + i, vector_ + i + 1, (length_ - i) * sizeof(char*));
                --length_;
            }
            return;
        }
        if (entry[keyLength] != '=') return;
        vector_[length_++] = entry;
        vector_[length_] = nullptr;
    }

  private:
    char** vector_;
    size_t length_;
};

const char* search_path(char* const* envp) {
    for (char* const* entry = envp; *entry != nullptr; ++entry)
        if (strncmp(*entry, "PATH=", 5) == 0) return *entry + 5;
    return nullptr;
}
} // namespace

QUILLON_API void GetKey(const char* entry, char* key, uint64_t size) {
    TraceScope trace("GetKey");
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
}

QUILLON_API int TestKeys(const char* first, const char* second) {
    TraceScope trace("TestKeys");
    if (first == nullptr || second == nullptr) return first == nullptr ? (second == nullptr ? 0 : 1) : -1;
    char firstKey[kTestKeySize];
    char secondKey[kTestKeySize];
    GetKey(first, firstKey, sizeof firstKey);
    GetKey(second, secondKey, sizeof secondKey);
    return strcasecmp(firstKey, secondKey);
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

bool build_environment(LaunchRequest* request) {
    size_t additions = count_entries(request->environment);
    char** base = request->baseEnvironment != nullptr ? request->baseEnvironment : environ;
    size_t length = count_entries(base);
    char** envp = request->arena.allocate_array<char*>(length + additions + 1);
    if (envp == nullptr) return false;
    for (size_t i = 0; i < length; ++i)
        envp[i] = base[i];
    envp[length] = nullptr;
    EnvironmentVector vector(envp, length);
    for (size_t i = 0; i < additions; ++i) {
        char* entry = request->environment[i];
        if (!is_additive(entry)) {
            vector.put(entry);
            continue;
        }
        char key[kMergeKeySize];
        char* merged = nullptr;
        GetKey(entry, key, sizeof key);
        if (GenerateAdditiveString(key, request->environment, envp, nullptr, &merged) == 0) return false;
        if (merged != nullptr && !request->arena.adopt(merged)) return false;
        vector.put(merged != nullptr ? merged : entry);
    }
    request->envp = envp;
    request->searchPath = search_path(envp);
    return true;
}
