// Reading and changing the user and group of the running process through the reentrant registry.
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/identity.h"
#include "quillon/runtime.h"

namespace {
constexpr size_t kScratch = 8196;

// One registry lookup, repeated while interrupted. Returns the entry or null, with the errno noted.
template <typename Entry, typename Key, typename Lookup>
Entry* lookup(Lookup call, Key key, Entry* entry, char (&scratch)[kScratch], int* err) {
    Entry* result = nullptr;
    int returned;
    do {
        returned = call(key, entry, scratch, kScratch, &result);
        *err = errno;
    } while (returned != 0 && *err == EINTR);
    return result;
}

int failure_result(int err, int invalid) {
    switch (err) {
    case 0:
    case ENOENT:
    case ESRCH:
    case EBADF:
    case EPERM:
        return invalid;
    case ERANGE:
    case ENOMEM:
        return PROC_OUT_OF_MEMORY;
    case EMFILE:
    case ENFILE:
        return PROC_OUT_OF_FILE_HANDLES;
    default:
        return PROC_SYSTEM_ERR;
    }
}

void deliver_utf8(char* destination, const char* text, size_t size) {
    if (process_stringConverterToUTF8(destination, text, size) == nullptr) strncpy(destination, text, size);
    destination[size - 1] = 0;
}

// What distinguishes the three getters.
struct Getter {
    const char* label;
    const char* nullBuffer;
    const char* obtained;
    const char* failure;
    const char* mapped;
};

template <typename Entry, typename Lookup, typename Field, typename OnNullField>
int get_identity(const Getter& getter, unsigned id, Lookup call, Field field, OnNullField onNullField,
                 char* dst, size_t size, int* sysErr, int invalid) {
    process_log_entry(getter.label);
    int result = PROC_SUCCESS;
    if (dst == nullptr) {
        process_err(getter.nullBuffer);
        result = PROC_SYSTEM_ERR;
    } else {
        process_log(getter.obtained, id);
        Entry entry = {};
        char scratch[kScratch] = {};
        int err = 0;
        Entry* found = lookup(call, id, &entry, scratch, &err);
        if (found == nullptr) {
            *sysErr = err;
            result = failure_result(err, invalid);
            process_err(getter.failure, result, err);
        } else if (field(found) == nullptr) {
            result = onNullField(id, dst, size, sysErr);
        } else {
            deliver_utf8(dst, field(found), size);
            process_log(getter.mapped, id, field(found));
        }
    }
    process_log_exit(getter.label);
    return result;
}

// What distinguishes the two setters.
struct Setter {
    const char* label;
    const char* attempting;
    const char* failure;
    const char* obtained;
    const char* refused;
};

template <typename Entry, typename Lookup, typename Id, typename Change, typename Done>
int set_identity(const Setter& setter, const char* name, Lookup call, Id id, Change change, Done done,
                 int* sysErr, int invalid) {
    process_log_entry(setter.label);
    process_log(setter.attempting, name);
    Entry entry = {};
    char scratch[kScratch] = {};
    int err = 0;
    int result = PROC_SUCCESS;
    Entry* found = lookup(call, name, &entry, scratch, &err);
    if (found == nullptr) {
        *sysErr = err;
        result = failure_result(err, invalid);
        process_err(setter.failure, name, result, err);
    } else {
        unsigned value = id(found);
        process_log(setter.obtained, name, value);
        if (change(value) != 0) {
            err = errno;
            process_err(setter.refused, name, value, err);
            *sysErr = err;
            result = PROC_ACCESS_DENIED;
        } else {
            done();
        }
    }
    process_log_exit(setter.label);
    return result;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
} // namespace

QUILLON_API int unix_getUser(char* name, size_t size, int* sysErr) {
    static const Getter getter = {"unix_getUser()", "The buffer for name storage passed in was NULL\n",
                                  "Obtained UID: [%d]\n",
                                  "A failure was obtained while getting the current username as a utf8 "
                                  "string.  Return: [%d].  ERRNO: [%d].\n",
                                  "Mapped UID: [%d] to username: [%s]\n"};
    return get_identity<passwd>(
        getter, getuid(), getpwuid_r, [](passwd* p) { return p->pw_name; },
        [](unsigned id, char*, size_t, int* err) {
            process_err("A structure was obtained for UID: [%d] but the name was NULL inside it.\n", id);
            *err = 0;
            return PROC_INVALID_USERNAME;
        },
        name, size, sysErr, PROC_INVALID_USERNAME);
}

QUILLON_API int unix_getGroup(char* name, size_t size, int* sysErr) {
    static const Getter getter = {"unix_getGroup()", "The buffer for name storage passed in was NULL.\n",
                                  "Obtained GID: [%d]\n",
                                  "A failure was obtained while getting the current groupname as a utf8 "
                                  "string.  Return: [%d].  ERRNO: [%d].\n",
                                  "Mapped GID: [%d] to group: [%s]\n"};
    return get_identity<group>(
        getter, getgid(), getgrgid_r, [](group* g) { return g->gr_name; },
        [](unsigned id, char*, size_t, int* err) {
            process_err("A structure was obtained for GID: [%d] but the group name was NULL inside it.\n",
                        id);
            *err = 0;
            return PROC_INVALID_GROUP;
        },
        name, size, sysErr, PROC_INVALID_GROUP);
}

QUILLON_API int unix_getUserHomeDirectory(char* directory, size_t size, int* sysErr) {
    static const Getter getter = {
        "unix_getUserHomeDirectory()", "The buffer for name storage passed in was NULL\n",
        "Obtained UID: [%d]\n",
        "A failure was obtained while getting the current user home directory as a utf8 "
        "string.  Return: [%d].  ERRNO: [%d].\n",
        "Mapped UID: [%d] home directory to: [%s]\n"};
    return get_identity<passwd>(
        getter, getuid(), getpwuid_r, [](passwd* p) { return p->pw_dir; },
        [](unsigned id, char* dst, size_t size, int* err) {
            copy_bounded(dst, "/", size);
            process_log(
                "A structure was obtained for UID: [%d] but the home directory name was NULL inside it.  "
                "Therefore, setting home directory to: [/]\n",
                id);
            *err = 0;
            return PROC_SUCCESS;
        },
        directory, size, sysErr, PROC_INVALID_USERNAME);
}

QUILLON_API int unix_setUser(const char* userName, int* sysErr) {
    static const Setter setter = {"unix_setUser()", "Attempting to set process to user: [%s]\n",
                                  "A failure occured while obtaining the passwd structure for username [%s]. "
                                  " Return: [%d].  ERRNO: [%d].\n",
                                  "Obtained user: [%s] UID: [%d]\n",
                                  "Failed to set process to user: [%s] which has UID: [%d].  ERRNO: [%d]\n"};
    return set_identity<passwd>(
        setter, userName, getpwnam_r, [](passwd* p) { return static_cast<unsigned>(p->pw_uid); },
        [](unsigned uid) { return setuid(uid); },
        [] { process_log("setuid successful, uid=[%d] euid=[%d]\n", getuid(), geteuid()); }, sysErr,
        PROC_INVALID_USERNAME);
}

QUILLON_API int unix_setGroup(const char* groupName, int* sysErr) {
    static const Setter setter = {"unix_setGroup()", "Attempting to set process to group: [%s]\n",
                                  "A failure occured while obtaining the group structure for groupname [%s]. "
                                  " Return: [%d].  ERRNO: [%d].\n",
                                  "Obtained group: [%s] UID: [%d]\n",
                                  "Failed to set process to group: [%s] which has GID: [%d].  ERRNO: [%d]\n"};
    return set_identity<group>(
        setter, groupName, getgrnam_r, [](group* g) { return static_cast<unsigned>(g->gr_gid); },
        [](unsigned gid) { return setgid(gid); },
        [] { process_log("setgid successful, gid=[%d] egid=[%d]\n", getgid(), getegid()); }, sysErr,
        PROC_INVALID_GROUP);
}
#pragma GCC diagnostic pop
