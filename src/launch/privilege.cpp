// Group, supplementary groups and user of the new process. The registry is read in the launching thread
// (a new process must not enter it: another thread may have held its locks); the new process makes the
// changes, group before user, and reports in the order the steps come.
#include <cerrno>
#include <cstdlib>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "identity/registry.h"
#include "launch/launch_internal.h"
#include "launch/raw_syscall.h"
#include "quillon/launch.h"

namespace {
// A registry lookup with a buffer that grows while the entry doesn't fit. ENOMEM when memory ran out;
// else the entry or null, with the lookup's error.
template <typename Entry>
Entry* lookup(int (*call)(const char*, Entry*, char*, size_t, Entry**), const char* name, Entry* entry,
              MallocPtr<char>* buffer, int* err) {
    for (size_t size = 16384;; size *= 2) {
        buffer->reset(static_cast<char*>(malloc(size)));
        if (*buffer == nullptr) {
            *err = ENOMEM;
            return nullptr;
        }
        Entry* found = registry_lookup(call, name, entry, buffer->get(), size, err);
        if (found != nullptr || *err != ERANGE) return found;
    }
}

// The list initgroups would load for the user and the group id. False when memory ran out.
bool resolve_supplementary(PrivilegePlan* plan, gid_t base, Arena& arena) {
    int count = static_cast<int>(sysconf(_SC_NGROUPS_MAX)) + 1;
    plan->supplementary = arena.allocate_array<gid_t>(static_cast<size_t>(count));
    if (plan->supplementary == nullptr) return false;
    if (getgrouplist(plan->userName, base, plan->supplementary, &count) == -1) plan->supplementaryErrno = EINVAL;
    plan->supplementaryCount = static_cast<size_t>(count);
    return true;
}

// A change of credentials: in the new process for itself, in the host for every thread. 0 or -errno.
NEW_PROCESS_CODE long change_groups(const ChildContext& context, size_t count, const gid_t* groups) {
    if (!context.inHost) return sys_setgroups(count, groups);
    return setgroups(count, groups) == 0 ? 0 : -errno;
}
NEW_PROCESS_CODE long change_gid(const ChildContext& context, gid_t gid) {
    if (!context.inHost) return sys_setgid(gid);
    return setgid(gid) == 0 ? 0 : -errno;
}
NEW_PROCESS_CODE long change_uid(const ChildContext& context, uid_t uid) {
    if (!context.inHost) return sys_setuid(uid);
    return setuid(uid) == 0 ? 0 : -errno;
}

NEW_PROCESS_CODE int clear_secondary_groups(const ChildContext& context, int* sysErr) {
    ChildTraceScope trace(context, "ClearSecondaryGroups()");
    child_log(context, "Trying to clear supplamental groups.\n");
    long result = change_groups(context, 0, nullptr);
    if (result != 0) {
        trace.skip_exit();
        *sysErr = static_cast<int>(-result);
        child_err(context, "Failed to clear supplamental groups. err=[%d]\n", *sysErr);
        return PROC_INVALID_GROUP;
    }
    return PROC_SUCCESS;
}

NEW_PROCESS_CODE int init_secondary_groups(const ChildContext& context, const PrivilegePlan& plan, gid_t gid, int* sysErr) {
    ChildTraceScope trace(context, "InitSecondaryGroups()");
    if (!plan.loadSupplementary) return PROC_SUCCESS;
    child_log(context, "Setting supplimentary groups for user: [%s] gid: [%d]\n", plan.userName,
              static_cast<int>(gid));
    long result = plan.supplementaryErrno != 0 ? -plan.supplementaryErrno
                                               : change_groups(context, plan.supplementaryCount, plan.supplementary);
    if (result != 0) {
        trace.skip_exit();
        *sysErr = static_cast<int>(-result);
        child_err(context, "Failed to set supplimentary groups. err=[%d]\n", *sysErr);
        return PROC_INVALID_GROUP;
    }
    return PROC_SUCCESS;
}

NEW_PROCESS_CODE int user_not_found(const ChildContext& context, const PrivilegePlan& plan, int* sysErr) {
    *sysErr = plan.userErrno;
    child_err(context, "Failed user lookup of userid: [%s]\n", plan.userName);
    return PROC_INVALID_USERNAME;
}
} // namespace

bool resolve_privilege(PrivilegePlan* plan, const char* userName, const char* groupName, Arena& arena) {
    plan->userName = userName;
    plan->groupName = groupName;
    plan->forceGroupDisabled = getenv("__JNI_PROCESS_DISABLE_FORCEGROUP") != nullptr;
    plan->loadSupplementary = getenv("__JNI_PROCESS_INITGROUPS") != nullptr;
    MallocPtr<char> buffer;
    int err = 0;
    if (groupName != nullptr) {
        group entry;
        plan->groupFound = lookup(getgrnam_r, groupName, &entry, &buffer, &err) != nullptr;
        if (err == ENOMEM) return false;
        if (plan->groupFound) plan->groupGid = entry.gr_gid;
    }
    if (userName == nullptr) return true;
    passwd entry;
    plan->userFound = lookup(getpwnam_r, userName, &entry, &buffer, &err) != nullptr;
    if (err == ENOMEM) return false;
    plan->userErrno = plan->userFound ? 0 : err;
    if (plan->userFound) {
        plan->userUid = entry.pw_uid;
        plan->userGid = entry.pw_gid;
    }
    // The list for the group the group stage will hand to InitSecondaryGroups.
    bool groupStage = groupName != nullptr ? plan->groupFound : plan->userFound && !plan->forceGroupDisabled;
    if (!plan->loadSupplementary || !groupStage) return true;
    return resolve_supplementary(plan, groupName != nullptr ? plan->groupGid : plan->userGid, arena);
}

namespace {
// The steps in their order: group (with the supplementary groups), then user.
NEW_PROCESS_CODE int change_ids(const ChildContext& context, const PrivilegePlan& plan, int* sysErr) {
    child_log(context, "Process uid=[%d] euid=[%d] gid=[%d] egid=[%d]\n", static_cast<int>(sys_getuid()),
              static_cast<int>(sys_geteuid()), static_cast<int>(sys_getgid()), static_cast<int>(sys_getegid()));
    const long euid = sys_geteuid();
    const bool root = euid == 0;
    if (!root) child_log(context, "Attempting to set privilege IDs when not root. euid=[%d]\n", static_cast<int>(euid));

    int result = PROC_SUCCESS;
    if (plan.groupName != nullptr) {
        if (root && (result = clear_secondary_groups(context, sysErr)) != PROC_SUCCESS) return result;
        child_log(context, "Determining GID for group: [%s]\n", plan.groupName);
        if (!plan.groupFound) {
            *sysErr = 0;
            child_err(context, "Failed to look up group: [%s]\n", plan.groupName);
            return PROC_INVALID_GROUP;
        }
        if (root && plan.userName != nullptr &&
            (result = init_secondary_groups(context, plan, plan.groupGid, sysErr)) != PROC_SUCCESS)
            return result;
        child_log(context, "Configuring process GID to [%d]\n", static_cast<int>(plan.groupGid));
        long changed = change_gid(context, plan.groupGid);
        if (changed != 0) {
            *sysErr = static_cast<int>(-changed);
            child_err(context, "Failed to set the group to GID: [%d] errno=[%d]\n", static_cast<int>(plan.groupGid),
                      *sysErr);
            return PROC_INVALID_GROUP;
        }
    } else if (plan.userName != nullptr && !plan.forceGroupDisabled) {
        if (root && (result = clear_secondary_groups(context, sysErr)) != PROC_SUCCESS) return result;
        child_log(context, "Determining primary GID for user: [%s]\n", plan.userName);
        if (!plan.userFound) return user_not_found(context, plan, sysErr);
        if (root && (result = init_secondary_groups(context, plan, plan.userGid, sysErr)) != PROC_SUCCESS)
            return result;
        child_log(context, "Configuring process GID to [%d], the primary group GID of user: [%s]\n",
                  static_cast<int>(plan.userGid), plan.userName);
        long changed = change_gid(context, plan.userGid);
        if (changed != 0) {
            *sysErr = static_cast<int>(-changed);
            child_err(context, "Failed to set the group to GID: [%d]\n", static_cast<int>(plan.userGid));
            return PROC_INVALID_GROUP;
        }
    }
    if (plan.userName != nullptr) {
        child_log(context, "Trying to set user to: [%s]\n", plan.userName);
        if (!plan.userFound) return user_not_found(context, plan, sysErr);
        long changed = change_uid(context, plan.userUid);
        if (changed != 0) {
            *sysErr = static_cast<int>(-changed);
            child_err(context, "Failed to set the process user association to UID: [%d]\n",
                      static_cast<int>(plan.userUid));
            return PROC_INVALID_USERNAME;
        }
    }
    return PROC_SUCCESS;
}

} // namespace

NEW_PROCESS_CODE int set_privilege_ids(const ChildContext& context, const PrivilegePlan& plan, int* sysErr) {
    ChildTraceScope trace(context, "SetupChildPrivilegeIDs()");
    int result = change_ids(context, plan, sysErr);
    if (result != PROC_SUCCESS) trace.skip_exit(); // the exit line marks success
    return result;
}

QUILLON_API int ClearSecondaryGroups(int* sysErr) {
    return clear_secondary_groups(host_context(), sysErr);
}

QUILLON_API int InitSecondaryGroups(const char* userName, int gid, int* sysErr) {
    PrivilegePlan plan;
    Arena arena;
    plan.userName = userName;
    plan.loadSupplementary = getenv("__JNI_PROCESS_INITGROUPS") != nullptr;
    if (plan.loadSupplementary && !resolve_supplementary(&plan, static_cast<gid_t>(gid), arena)) {
        *sysErr = ENOMEM;
        return PROC_OUT_OF_MEMORY;
    }
    return init_secondary_groups(host_context(), plan, static_cast<gid_t>(gid), sysErr);
}

QUILLON_API int SetProcessPrivilegeIDs(const char* userName, const char* groupName, int* sysErr) {
    PrivilegePlan plan;
    Arena arena;
    if (!resolve_privilege(&plan, userName, groupName, arena)) {
        *sysErr = ENOMEM;
        return PROC_OUT_OF_MEMORY;
    }
    return set_privilege_ids(host_context(), plan, sysErr);
}
