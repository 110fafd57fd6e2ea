// Reading and changing the user and group of the running process through the reentrant registry. The
// getters and the setters are each one family; a constexpr table of texts tells the members apart (the
// compiler checks its formats where they are used).
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "identity/registry.h"
#include "quillon/identity.h"
#include "runtime/support.h"

namespace {
constexpr size_t kScratch = 8196;

int failure_result(int err, int invalid) {
    if (err == ERANGE) return PROC_OUT_OF_MEMORY;
    return result_for_errno(err, {0, ENOENT, ESRCH, EBADF, EPERM}, invalid);
}

// One lookup in the registry for the running process: the entry found, or the result code of the
// failure with sysErr set.
template <typename Entry> struct Lookup {
    template <typename Key>
    Lookup(int (*call)(Key, Entry*, char*, size_t, Entry**), Key key, int invalid, int* sysErr) {
        int err = 0;
        found = registry_lookup(call, key, &entry, scratch, sizeof scratch, &err);
        if (found != nullptr) return;
        *sysErr = err;
        result = failure_result(err, invalid);
    }
    Entry entry;
    char scratch[kScratch];
    Entry* found = nullptr;
    int result = PROC_SUCCESS;
};

struct GetterTexts {
    const char* label;
    const char* nullBuffer;
    const char* obtained;
    int invalid; // the result when the registry has no such entry, and its text:
    const char* failure;
    const char* mapped;
    const char* nullField; // a record without the field
    const char* fallback;  // what a record without the field delivers; null: it is invalid
};

constexpr GetterTexts kUserGetter = {
    "unix_getUser()", "The buffer for name storage passed in was NULL\n", "Obtained UID: [%d]\n", PROC_INVALID_USERNAME,
    "A failure was obtained while getting the current username as a utf8 string.  Return: [%d].  ERRNO: [%d].\n",
    "Mapped UID: [%d] to username: [%s]\n", "A structure was obtained for UID: [%d] but the name was NULL inside it.\n",
    nullptr};
constexpr GetterTexts kGroupGetter = {
    "unix_getGroup()", "The buffer for name storage passed in was NULL.\n", "Obtained GID: [%d]\n", PROC_INVALID_GROUP,
    "A failure was obtained while getting the current groupname as a utf8 string.  Return: [%d].  ERRNO: [%d].\n",
    "Mapped GID: [%d] to group: [%s]\n",
    "A structure was obtained for GID: [%d] but the group name was NULL inside it.\n", nullptr};
constexpr GetterTexts kHomeGetter = {"unix_getUserHomeDirectory()", "The buffer for name storage passed in was NULL\n",
                                     "Obtained UID: [%d]\n", PROC_INVALID_USERNAME,
                                     "A failure was obtained while getting the current user home directory as a utf8 "
                                     "string.  Return: [%d].  ERRNO: [%d].\n",
                                     "Mapped UID: [%d] home directory to: [%s]\n",
                                     "A structure was obtained for UID: [%d] but the home directory name was NULL "
                                     "inside it.  Therefore, setting home directory to: [/]\n",
                                     "/"};

// The field of the running process's registry entry, in UTF-8.
template <const GetterTexts& Texts, typename Entry, typename Key>
int get_identity(Key id, int (*call)(Key, Entry*, char*, size_t, Entry**), const char* (*field)(const Entry*),
                 char* dst, size_t size, int* sysErr) {
    TraceScope trace(Texts.label);
    if (dst == nullptr) {
        process_err(Texts.nullBuffer);
        return PROC_SYSTEM_ERR;
    }
    process_log(Texts.obtained, id);
    Lookup<Entry> lookup(call, id, Texts.invalid, sysErr);
    if (lookup.found == nullptr) {
        process_err(Texts.failure, lookup.result, *sysErr);
        return lookup.result;
    }
    const char* text = field(lookup.found);
    if (text == nullptr) {
        *sysErr = 0;
        if (Texts.fallback == nullptr) {
            process_err(Texts.nullField, id);
            return Texts.invalid;
        }
        copy_bounded(dst, Texts.fallback, size);
        process_log(Texts.nullField, id);
        return PROC_SUCCESS;
    }
    utf8_or_as_is(dst, text, size);
    process_log(Texts.mapped, id, text);
    return PROC_SUCCESS;
}

struct SetterTexts {
    const char* label;
    const char* attempting;
    int invalid; // the result when the registry has no such entry, and its text:
    const char* failure;
    const char* obtained;
    const char* refused;
    const char* done;
};

constexpr SetterTexts kUserSetter = {
    "unix_setUser()", "Attempting to set process to user: [%s]\n", PROC_INVALID_USERNAME,
    "A failure occured while obtaining the passwd structure for username [%s].  Return: [%d].  ERRNO: [%d].\n",
    "Obtained user: [%s] UID: [%d]\n", "Failed to set process to user: [%s] which has UID: [%d].  ERRNO: [%d]\n",
    "setuid successful, uid=[%d] euid=[%d]\n"};
constexpr SetterTexts kGroupSetter = {
    "unix_setGroup()", "Attempting to set process to group: [%s]\n", PROC_INVALID_GROUP,
    "A failure occured while obtaining the group structure for groupname [%s].  Return: [%d].  ERRNO: [%d].\n",
    "Obtained group: [%s] UID: [%d]\n", "Failed to set process to group: [%s] which has GID: [%d].  ERRNO: [%d]\n",
    "setgid successful, gid=[%d] egid=[%d]\n"};

// Looks the name up and changes to its id; `now` gives the real and effective id after the change.
template <const SetterTexts& Texts, typename Entry, typename Id>
int set_identity(const char* name, int (*call)(const char*, Entry*, char*, size_t, Entry**), Id (*id)(const Entry*),
                 int (*change)(Id), Id (*real)(), Id (*effective)(), int* sysErr) {
    TraceScope trace(Texts.label);
    process_log(Texts.attempting, name);
    Lookup<Entry> lookup(call, name, Texts.invalid, sysErr);
    if (lookup.found == nullptr) {
        process_err(Texts.failure, name, lookup.result, *sysErr);
        return lookup.result;
    }
    Id value = id(lookup.found);
    process_log(Texts.obtained, name, value);
    if (change(value) != 0) {
        *sysErr = errno; // whatever it is, the change was refused
        process_err(Texts.refused, name, value, *sysErr);
        return PROC_ACCESS_DENIED;
    }
    process_log(Texts.done, real(), effective());
    return PROC_SUCCESS;
}

const char* user_name(const passwd* entry) {
    return entry->pw_name;
}
const char* group_name(const group* entry) {
    return entry->gr_name;
}
const char* home_directory(const passwd* entry) {
    return entry->pw_dir;
}
uid_t uid_of(const passwd* entry) {
    return entry->pw_uid;
}
gid_t gid_of(const group* entry) {
    return entry->gr_gid;
}
} // namespace

QUILLON_API int unix_getUser(char* name, size_t size, int* sysErr) {
    return get_identity<kUserGetter>(getuid(), getpwuid_r, user_name, name, size, sysErr);
}

QUILLON_API int unix_getGroup(char* name, size_t size, int* sysErr) {
    return get_identity<kGroupGetter>(getgid(), getgrgid_r, group_name, name, size, sysErr);
}

QUILLON_API int unix_getUserHomeDirectory(char* directory, size_t size, int* sysErr) {
    return get_identity<kHomeGetter>(getuid(), getpwuid_r, home_directory, directory, size, sysErr);
}

QUILLON_API int unix_setUser(const char* userName, int* sysErr) {
    return set_identity<kUserSetter>(userName, getpwnam_r, uid_of, setuid, getuid, geteuid, sysErr);
}

QUILLON_API int unix_setGroup(const char* groupName, int* sysErr) {
    return set_identity<kGroupSetter>(groupName, getgrnam_r, gid_of, setgid, getgid, getegid, sysErr);
}
