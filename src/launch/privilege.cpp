// Group, supplementary groups and user of the new process. Group goes before user.
#include <cerrno>
#include <cstdlib>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

namespace {
constexpr const char* kLabel = "SetupChildPrivilegeIDs()";
const RegistryAnswers* __registryAnswers = nullptr;

struct GroupLookup {
    bool found;
    gid_t gid;
};
struct UserLookup {
    bool found;
    int err;
    uid_t uid;
    gid_t gid;
};

GroupLookup lookup_group(const char* groupName) {
    if (__registryAnswers != nullptr) return {__registryAnswers->groupFound, __registryAnswers->groupGid};
    const group* entry = getgrnam(groupName);
    return entry == nullptr ? GroupLookup{false, 0} : GroupLookup{true, entry->gr_gid};
}

UserLookup lookup_user(const char* userName) {
    if (__registryAnswers != nullptr)
        return {__registryAnswers->userFound, __registryAnswers->userErrno, __registryAnswers->userUid,
                __registryAnswers->userGid};
    const passwd* entry = getpwnam(userName);
    if (entry == nullptr) return {false, errno, 0, 0};
    return {true, 0, entry->pw_uid, entry->pw_gid};
}

int load_supplementary(const char* userName, gid_t gid) {
    if (__registryAnswers == nullptr || __registryAnswers->supplementaryCount < 0)
        return initgroups(userName, gid);
    if (__registryAnswers->supplementaryErrno != 0) {
        errno = __registryAnswers->supplementaryErrno;
        return -1;
    }
    return setgroups(static_cast<size_t>(__registryAnswers->supplementaryCount),
                     __registryAnswers->supplementary);
}

bool force_group_disabled() {
    return getenv("__JNI_PROCESS_DISABLE_FORCEGROUP") != nullptr;
}
bool initgroups_wanted() {
    return getenv("__JNI_PROCESS_INITGROUPS") != nullptr;
}

// Reentrant lookups for the launching process, with a buffer that grows while the entry doesn't fit.
template <typename Entry, typename Lookup>
Entry* lookup_reentrant(Lookup lookup, const char* name, Entry* entry, char** buffer, int* err) {
    size_t size = 16384;
    for (;;) {
        *buffer = static_cast<char*>(malloc(size));
        if (*buffer == nullptr) {
            *err = ENOMEM;
            return nullptr;
        }
        Entry* result = nullptr;
        errno = 0;
        int failure = lookup(name, entry, *buffer, size, &result);
        if (failure != ERANGE) {
            *err = failure != 0 ? failure : errno;
            return result;
        }
        free(*buffer);
        size *= 2;
    }
}
} // namespace

QUILLON_API int ClearSecondaryGroups(int* sysErr) {
    process_log_entry("ClearSecondaryGroups()");
    process_log("Trying to clear supplamental groups.\n");
    if (setgroups(0, nullptr) != 0) {
        *sysErr = errno;
        process_err("Failed to clear supplamental groups. err=[%d]\n", *sysErr);
        return PROC_INVALID_GROUP;
    }
    process_log_exit("ClearSecondaryGroups()");
    return PROC_SUCCESS;
}

QUILLON_API int InitSecondaryGroups(const char* userName, int gid, int* sysErr) {
    process_log_entry("InitSecondaryGroups()");
    if (initgroups_wanted()) {
        process_log("Setting supplimentary groups for user: [%s] gid: [%d]\n", userName, gid);
        if (load_supplementary(userName, static_cast<gid_t>(gid)) != 0) {
            *sysErr = errno;
            process_err("Failed to set supplimentary groups. err=[%d]\n", *sysErr);
            return PROC_INVALID_GROUP;
        }
    }
    process_log_exit("InitSecondaryGroups()");
    return PROC_SUCCESS;
}

QUILLON_API int SetProcessPrivilegeIDs(const char* userName, const char* groupName, int* sysErr) {
    process_log_entry(kLabel);
    process_log("Process uid=[%d] euid=[%d] gid=[%d] egid=[%d]\n", getuid(), geteuid(), getgid(), getegid());
    const uid_t euid = geteuid();
    const bool root = euid == 0;
    if (!root) process_log("Attempting to set privilege IDs when not root. euid=[%d]\n", euid);

    int result;
    if (groupName != nullptr) {
        if (root && (result = ClearSecondaryGroups(sysErr)) != PROC_SUCCESS) return result;
        process_log("Determining GID for group: [%s]\n", groupName);
        GroupLookup group = lookup_group(groupName);
        if (!group.found) {
            *sysErr = 0;
            process_err("Failed to look up group: [%s]\n", groupName);
            return PROC_INVALID_GROUP;
        }
        if (root && userName != nullptr &&
            (result = InitSecondaryGroups(userName, static_cast<int>(group.gid), sysErr)) != PROC_SUCCESS)
            return result;
        process_log("Configuring process GID to [%d]\n", group.gid);
        if (setgid(group.gid) != 0) {
            *sysErr = errno;
            process_err("Failed to set the group to GID: [%d] errno=[%d]\n", group.gid, *sysErr);
            return PROC_INVALID_GROUP;
        }
    } else if (userName != nullptr && !force_group_disabled()) {
        if (root && (result = ClearSecondaryGroups(sysErr)) != PROC_SUCCESS) return result;
        process_log("Determining primary GID for user: [%s]\n", userName);
        UserLookup user = lookup_user(userName);
        if (!user.found) {
            *sysErr = user.err;
            process_err("Failed user lookup of userid: [%s]\n", userName);
            return PROC_INVALID_USERNAME;
        }
        if (root &&
            (result = InitSecondaryGroups(userName, static_cast<int>(user.gid), sysErr)) != PROC_SUCCESS)
            return result;
        process_log("Configuring process GID to [%d], the primary group GID of user: [%s]\n", user.gid,
                    userName);
        if (setgid(user.gid) == -1) {
            *sysErr = errno;
            process_err("Failed to set the group to GID: [%d]\n", user.gid);
            return PROC_INVALID_GROUP;
        }
    }
    if (userName != nullptr) {
        process_log("Trying to set user to: [%s]\n", userName);
        UserLookup user = lookup_user(userName);
        if (!user.found) {
            *sysErr = user.err;
            process_err("Failed user lookup of userid: [%s]\n", userName);
            return PROC_INVALID_USERNAME;
        }
        if (setuid(user.uid) != 0) {
            *sysErr = errno;
            process_err("Failed to set the process user association to UID: [%d]\n", user.uid);
            return PROC_INVALID_USERNAME;
        }
    }
    process_log_exit(kLabel);
    return PROC_SUCCESS;
}

void PrepareRegistryAnswers(RegistryAnswers* answers, const char* userName, const char* groupName) {
    *answers = RegistryAnswers{};
    answers->supplementaryCount = -1;
    char* buffer = nullptr;
    int err = 0;
    if (groupName != nullptr) {
        group entry;
        answers->groupFound = lookup_reentrant(getgrnam_r, groupName, &entry, &buffer, &err) != nullptr;
        if (answers->groupFound) answers->groupGid = entry.gr_gid;
        free(buffer);
    }
    if (userName == nullptr) return;
    passwd entry;
    answers->userFound = lookup_reentrant(getpwnam_r, userName, &entry, &buffer, &err) != nullptr;
    answers->userErrno = answers->userFound ? 0 : err;
    if (answers->userFound) {
        answers->userUid = entry.pw_uid;
        answers->userGid = entry.pw_gid;
    }
    free(buffer);
    if (!initgroups_wanted() || (groupName != nullptr && !answers->groupFound) ||
        (groupName == nullptr && !answers->userFound))
        return;
    // The list initgroups would load, for the group the group stage will hand it.
    gid_t base = groupName != nullptr ? answers->groupGid : answers->userGid;
    int count = static_cast<int>(sysconf(_SC_NGROUPS_MAX)) + 1;
    answers->supplementary = static_cast<gid_t*>(malloc(static_cast<size_t>(count) * sizeof(gid_t)));
    if (answers->supplementary == nullptr) return;
    if (getgrouplist(userName, base, answers->supplementary, &count) == -1)
        answers->supplementaryErrno = EINVAL;
    answers->supplementaryCount = count;
}

void ReleaseRegistryAnswers(RegistryAnswers* answers) {
    free(answers->supplementary);
    answers->supplementary = nullptr;
}

void UseRegistryAnswers(const RegistryAnswers* answers) {
    __registryAnswers = answers;
}
