// Identity natives: privilege, user, group and home directory of the running process.
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "quillon/boundary.h"
#include "quillon/identity.h"
#include "quillon/runtime.h"

namespace {
// An exception text per result code, with the text for every other code last.
struct MessageRow {
    int result;
    const char* message;
};
constexpr int kOther = -1;

const char* message_for(const MessageRow* rows, int result) {
    for (; rows->result != kOther; ++rows)
        if (rows->result == result) return rows->message;
    return rows->message;
}

const MessageRow kUserGetter[] = {
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to return the username string."},
    {PROC_INVALID_USERNAME, "An invalid passwd structure was obtained from the OS."},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS user registry."},
    {PROC_NOT_SUPPORTED,
     "Getting of the current process effective user is not supported on this operating system."},
    {kOther, "An error occurred during the retrieval of the current effective user id.  Refer to the OS "
             "ERRNO table."},
};
const MessageRow kGroupGetter[] = {
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to return the username string."},
    {PROC_INVALID_GROUP, "An invalid group structure was obtained from the OS."},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS group registry."},
    {PROC_NOT_SUPPORTED,
     "Getting of the current process effective group is not supported on this operating system."},
    {kOther, "An error occurred during the retrieval of the current effective user id.  Refer to the OS "
             "ERRNO table."},
};
const MessageRow kHomeGetter[] = {
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to return the username string."},
    {PROC_INVALID_USERNAME, "An invalid passwd structure was obtained from the OS."},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS user registry."},
    {PROC_NOT_SUPPORTED,
     "Getting of the current process effective home directory is not supported on this operating system."},
    {kOther,
     "An error occurred during the retrieval of the current effective user id, so home directory could not "
     "be obtained.  Refer to the OS ERRNO table."},
};
const MessageRow kUserSetter[] = {
    {PROC_ACCESS_DENIED,
     "The operating system would not allow assignment of the process to user: [%s].  Access Denied.\n"},
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to obtain the passwd structure."},
    {PROC_INVALID_USERNAME,
     "The operating system would not allow assignment of the process to user: [%s].  The user "
     "does not exist in the OS group registry\n"},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS group registry."},
    {PROC_NOT_SUPPORTED,
     "Setting of the current process effective user is not supported on this operating system."},
    {kOther,
     "An error occurred during the setting of the current effective group id.  Refer to the OS ERRNO table."},
};
const MessageRow kGroupSetter[] = {
    {PROC_ACCESS_DENIED,
     "The operating system would not allow assignment of the process to group: [%s].  Access Denied.\n"},
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to obtain the group structure."},
    {PROC_INVALID_GROUP,
     "The operating system would not allow assignment of the process to group: [%s].  The group "
     "does not exist in the OS group registry\n"},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS group registry."},
    {PROC_NOT_SUPPORTED,
     "Setting of the current process effective group is not supported on this operating system."},
    {kOther,
     "An error occurred during the setting of the current effective group id.  Refer to the OS ERRNO table."},
};

struct GetterNative {
    const char* label;
    const char* success;
    const char* failure;
    const MessageRow* messages;
};

struct SetterNative {
    const char* label;
    const char* nullName;
    const char* success;
    const char* failure;
    const MessageRow* messages;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <size_t Size>
jstring get_native(JNIEnv* env, const GetterNative& native, int (*get)(char*, size_t, int*)) {
    process_log_entry(native.label);
    jstring value = nullptr;
    int sysErr = 0;
    char text[Size] = {};
    int result = get(text, sizeof text, &sysErr);
    if (result == PROC_SUCCESS) {
        process_log(native.success, text);
        value = env->NewStringUTF(text);
    } else {
        process_err(native.failure, result, sysErr);
        ThrowWithMessage(env, result, message_for(native.messages, result), sysErr);
    }
    process_log_exit(native.label);
    return value;
}

void set_native(JNIEnv* env, jstring name, const SetterNative& native, int (*set)(const char*, int*)) {
    process_log_entry(native.label);
    int sysErr = 0;
    if (name == nullptr) {
        ThrowWithMessage(env, PROC_SYSTEM_ERR, native.nullName, 0);
        process_log_exit(native.label);
        return;
    }
    char text[1024] = {};
    process_GetNativeStringFromJString(env, text, name, sizeof text);
    int result = set(text, &sysErr);
    if (result == PROC_SUCCESS) {
        process_log(native.success, text);
    } else {
        process_err(native.failure, text, result, sysErr);
        char message[kMessageBufferSize];
        snprintf(message, sizeof message, message_for(native.messages, result), text);
        message[sizeof message - 1] = 0;
        ThrowException(env, result, message, sysErr);
    }
    process_log_exit(native.label);
}
#pragma GCC diagnostic pop
} // namespace

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_isUserPrivileged(JNIEnv*,
                                                                                             jobject) {
    process_log_entry("UnixProcessGlue_isUserPrivileged()");
    jboolean privileged = getuid() == 0 ? JNI_TRUE : JNI_FALSE;
    process_log_exit("UnixProcessGlue_isUserPrivileged()");
    return privileged;
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_getCurrentProcessUser(JNIEnv* env,
                                                                                                 jobject) {
    static const GetterNative native = {
        "UnixProcessGlue_getCurrentProcessUser()",
        "Successfully obtained the username as a UTF-8 string.  String contents: [%s]\n",
        "Failed to obtain the process current effective user as a string.  Result was: [%d].  sysErr was: "
        "[%d]\n",
        kUserGetter};
    return get_native<1024>(env, native, unix_getUser);
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_getCurrentProcessGroup(JNIEnv* env,
                                                                                                  jobject) {
    static const GetterNative native = {
        "UnixProcessGlue_getCurrentProcessGroup()",
        "Successfully obtained the username as a UTF-8 string.  String contents: [%s]\n",
        "Failed to obtain the process current effective group as a string.  Result was: [%d].  sysErr was: "
        "[%d]\n",
        kGroupGetter};
    return get_native<1024>(env, native, unix_getGroup);
}

JNIEXPORT jstring JNICALL
Java_com_norvane_quillon_process_UnixProcessGlue_getCurrentProcessUserOSHomeDir(JNIEnv* env, jobject) {
    static const GetterNative native = {
        "UnixProcessGlue_getCurrentProcessUserOSHomeDir()",
        "Successfully obtained the home directory the process current user as directory (in UTF-8): [%s]\n",
        "Failed to obtain the process current effective user's home directory as a string.  Result was: "
        "[%d].  "
        "sysErr was: [%d]\n",
        kHomeGetter};
    return get_native<12288>(env, native, unix_getUserHomeDirectory);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_setCurrentProcessUser(
    JNIEnv* env, jobject, jstring userName) {
    static const SetterNative native = {
        "UnixProcessGlue_setCurrentProcessUser()",
        "A NULL java string was passed in for user name.  This is invalid.",
        "Successfully set the process user to: [%s]\n",
        "Failed to set the process current effective user to [%s].  Result was: [%d].  sysErr was: [%d]\n",
        kUserSetter};
    set_native(env, userName, native, unix_setUser);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_setCurrentProcessGroup(
    JNIEnv* env, jobject, jstring groupName) {
    static const SetterNative native = {
        "UnixProcessGlue_setCurrentProcessGroup()",
        "A NULL java string was passed in for group name.  This is invalid.",
        "Successfully set the process group to: [%s]\n",
        "Failed to set the process current effective group to [%s].  Result was: [%d].  sysErr was: [%d]\n",
        kGroupSetter};
    set_native(env, groupName, native, unix_setGroup);
}
