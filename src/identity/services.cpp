// Reading and changing the user and group of the running process through the reentrant registry.
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "quillon/identity.h"
#include "runtime/support.h"

namespace {
constexpr size_t kScratch = 8196;

// One registry lookup into a zero-filled entry and scratch buffer, repeated while interrupted. The entry
// found, or null with the errno noted.
template <typename Entry, typename Key, typename Lookup>
Entry* lookup(Lookup call, Key key, Entry* entry, char (&scratch)[kScratch], int* err) {
    memset(entry, 0, sizeof *entry);
    memset(scratch, 0, sizeof scratch);
    Entry* result = nullptr;
    int returned;
    do {
        returned = call(key, entry, scratch, kScratch, &result);
        *err = errno;
    } while (returned != 0 && *err == EINTR);
    return result;
}

int failure_result(int err, int invalid) {
    if (err == ERANGE) return PROC_OUT_OF_MEMORY;
    return result_for_errno(err, {0, ENOENT, ESRCH, EBADF, EPERM}, invalid);
}

void deliver_utf8(char* destination, const char* text, size_t size) {
    if (process_stringConverterToUTF8(destination, text, size) == nullptr) strncpy(destination, text, size);
    destination[size - 1] = 0;
}
} // namespace

QUILLON_API int unix_getUser(char* name, size_t size, int* sysErr) {
    TraceScope trace("unix_getUser()");
    if (name == nullptr) {
        process_err("The buffer for name storage passed in was NULL\n");
        return PROC_SYSTEM_ERR;
    }
    uid_t uid = getuid();
    process_log("Obtained UID: [%d]\n", uid);
    passwd entry;
    char scratch[kScratch];
    int err = 0;
    passwd* found = lookup(getpwuid_r, uid, &entry, scratch, &err);
    if (found == nullptr) {
        *sysErr = err;
        int result = failure_result(err, PROC_INVALID_USERNAME);
        process_err("A failure was obtained while getting the current username as a utf8 string.  Return: [%d].  "
                    "ERRNO: [%d].\n",
                    result, err);
        return result;
    }
    if (found->pw_name == nullptr) {
        process_err("A structure was obtained for UID: [%d] but the name was NULL inside it.\n", uid);
        *sysErr = 0;
        return PROC_INVALID_USERNAME;
    }
    deliver_utf8(name, found->pw_name, size);
    process_log("Mapped UID: [%d] to username: [%s]\n", uid, found->pw_name);
    return PROC_SUCCESS;
}

QUILLON_API int unix_getGroup(char* name, size_t size, int* sysErr) {
    TraceScope trace("unix_getGroup()");
    if (name == nullptr) {
        process_err("The buffer for name storage passed in was NULL.\n");
        return PROC_SYSTEM_ERR;
    }
    gid_t gid = getgid();
    process_log("Obtained GID: [%d]\n", gid);
    group entry;
    char scratch[kScratch];
    int err = 0;
    group* found = lookup(getgrgid_r, gid, &entry, scratch, &err);
    if (found == nullptr) {
        *sysErr = err;
        int result = failure_result(err, PROC_INVALID_GROUP);
        process_err("A failure was obtained while getting the current groupname as a utf8 string.  Return: [%d].  "
                    "ERRNO: [%d].\n",
                    result, err);
        return result;
    }
    if (found->gr_name == nullptr) {
        process_err("A structure was obtained for GID: [%d] but the group name was NULL inside it.\n", gid);
        *sysErr = 0;
        return PROC_INVALID_GROUP;
    }
    deliver_utf8(name, found->gr_name, size);
    process_log("Mapped GID: [%d] to group: [%s]\n", gid, found->gr_name);
    return PROC_SUCCESS;
}

QUILLON_API int unix_getUserHomeDirectory(char* directory, size_t size, int* sysErr) {
    TraceScope trace("unix_getUserHomeDirectory()");
    if (directory == nullptr) {
        process_err("The buffer for name storage passed in was NULL\n");
        return PROC_SYSTEM_ERR;
    }
    uid_t uid = getuid();
    process_log("Obtained UID: [%d]\n", uid);
    passwd entry;
    char scratch[kScratch];
    int err = 0;
    passwd* found = lookup(getpwuid_r, uid, &entry, scratch, &err);
    if (found == nullptr) {
        *sysErr = err;
        int result = failure_result(err, PROC_INVALID_USERNAME);
        process_err("A failure was obtained while getting the current user home directory as a utf8 string.  "
                    "Return: [%d].  ERRNO: [%d].\n",
                    result, err);
        return result;
    }
    if (found->pw_dir == nullptr) {
        copy_bounded(directory, "/", size);
        process_log("A structure was obtained for UID: [%d] but the home directory name was NULL inside it.  "
                    "Therefore, setting home directory to: [/]\n",
                    uid);
        *sysErr = 0;
        return PROC_SUCCESS;
    }
    deliver_utf8(directory, found->pw_dir, size);
    process_log("Mapped UID: [%d] home directory to: [%s]\n", uid, found->pw_dir);
    return PROC_SUCCESS;
}

QUILLON_API int unix_setUser(const char* userName, int* sysErr) {
    TraceScope trace("unix_setUser()");
    process_log("Attempting to set process to user: [%s]\n", userName);
    passwd entry;
    char scratch[kScratch];
    int err = 0;
    passwd* found = lookup(getpwnam_r, userName, &entry, scratch, &err);
    if (found == nullptr) {
        *sysErr = err;
        int result = failure_result(err, PROC_INVALID_USERNAME);
        process_err("A failure occured while obtaining the passwd structure for username [%s].  Return: [%d].  "
                    "ERRNO: [%d].\n",
                    userName, result, err);
        return result;
    }
    uid_t uid = found->pw_uid;
    process_log("Obtained user: [%s] UID: [%d]\n", userName, uid);
    if (setuid(uid) != 0) {
        err = errno;
        process_err("Failed to set process to user: [%s] which has UID: [%d].  ERRNO: [%d]\n", userName, uid, err);
        *sysErr = err;
        return PROC_ACCESS_DENIED;
    }
    process_log("setuid successful, uid=[%d] euid=[%d]\n", getuid(), geteuid());
    return PROC_SUCCESS;
}

QUILLON_API int unix_setGroup(const char* groupName, int* sysErr) {
    TraceScope trace("unix_setGroup()");
    process_log("Attempting to set process to group: [%s]\n", groupName);
    group entry;
    char scratch[kScratch];
    int err = 0;
    group* found = lookup(getgrnam_r, groupName, &entry, scratch, &err);
    if (found == nullptr) {
        *sysErr = err;
        int result = failure_result(err, PROC_INVALID_GROUP);
        process_err("A failure occured while obtaining the group structure for groupname [%s].  Return: [%d].  "
                    "ERRNO: [%d].\n",
                    groupName, result, err);
        return result;
    }
    gid_t gid = found->gr_gid;
    process_log("Obtained group: [%s] UID: [%d]\n", groupName, gid);
    if (setgid(gid) != 0) {
        err = errno;
        process_err("Failed to set process to group: [%s] which has GID: [%d].  ERRNO: [%d]\n", groupName, gid, err);
        *sysErr = err;
        return PROC_ACCESS_DENIED;
    }
    process_log("setgid successful, gid=[%d] egid=[%d]\n", getgid(), getegid());
    return PROC_SUCCESS;
}
