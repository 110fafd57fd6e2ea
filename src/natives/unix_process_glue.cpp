// Natives of UnixProcessGlue: launch, adoption, supervision, signals, and the identity of the running
// process. A handle is checked before use: 0, a handle given to done and any other number give
// ProcessOpException with EINVAL.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "boundary/jni_support.h"
#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "natives/launch_from_java.h"
#include "natives/record_launch.h"
#include "quillon/boundary.h"
#include "quillon/identity.h"
#include "quillon/launch.h"
#include "supervision/supervision_internal.h"

namespace {
constexpr size_t kNameSize = 1024;

void refuse_handle(JNIEnv* env, const char* message) {
    ThrowException(env, PROC_SYSTEM_ERR, message, EINVAL);
}

// A Java string's native text in a fixed buffer, cut to its size. False when it holds a NUL or memory
// ran out (then with sysErr set).
bool bounded_text(JNIEnv* env, jstring string, char* dst, size_t size, int* sysErr) {
    Arena arena;
    char* text = nullptr;
    bool hasNul = false;
    if (!native_text(env, string, arena, &text, &hasNul)) {
        *sysErr = ENOMEM;
        return false;
    }
    copy_bounded(dst, text, size);
    *sysErr = hasNul ? EINVAL : 0;
    return !hasNul;
}

// A record still marked alive is looked at with `probe` (a record marked dead is final). False, with the
// exception thrown, for a handle that is no live one or a probe that failed.
bool look_at(JNIEnv* env, const RecordRef& record, const char* message, int (*probe)(UnixProcessData*, int*)) {
    if (!record) {
        refuse_handle(env, message);
        return false;
    }
    if (load_field(record->isAlive) == 0) return true;
    int sysErr = 0;
    int result = probe(record.get(), &sysErr);
    if (result == PROC_SUCCESS) return true;
    ThrowException(env, result, message, sysErr);
    return false;
}

template <typename Wait> void wait_native(JNIEnv* env, jlong handle, const char* selfMessage, Wait wait) {
    TraceScope trace("UnixProcessGlue_waitForTermination()");
    RecordRef record(handle);
    if (!record) return refuse_handle(env, "Error waiting for process to terminate. ");
    UnixProcessData* data = record.get();
    if (record_pid(data) == linux_getpid()) return ThrowException(env, PROC_WAIT_FOR_SELF, selfMessage, 0);
    if (load_field(data->isAlive) == 0) return;
    int sysErr = 0;
    change_waiters(data, +1);
    int result = wait(data, &sysErr);
    change_waiters(data, -1);
    if (result != PROC_SUCCESS)
        ThrowException(env, result, "Error waiting for process to terminate. ", sysErr);
    else
        process_log("Process [%s] had return code [%d]\n", data->pid, load_field(data->exitCode));
}

template <typename Operation>
void signal_native(JNIEnv* env, jlong handle, const char* label, const char* message, Operation operation) {
    TraceScope trace(label);
    RecordRef record(handle);
    if (!record) return refuse_handle(env, message);
    int sysErr = 0;
    int result = operation(record.get(), &sysErr);
    if (result != PROC_SUCCESS) ThrowException(env, result, message, sysErr);
}

// An exception text per result code of an identity native, with the text for every other code last.
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

constexpr MessageRow kUserGetter[] = {
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to return the username string."},
    {PROC_INVALID_USERNAME, "An invalid passwd structure was obtained from the OS."},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS user registry."},
    {PROC_NOT_SUPPORTED, "Getting of the current process effective user is not supported on this operating system."},
    {kOther, "An error occurred during the retrieval of the current effective user id.  Refer to the OS ERRNO table."},
};
constexpr MessageRow kGroupGetter[] = {
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to return the username string."},
    {PROC_INVALID_GROUP, "An invalid group structure was obtained from the OS."},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS group registry."},
    {PROC_NOT_SUPPORTED, "Getting of the current process effective group is not supported on this operating system."},
    {kOther, "An error occurred during the retrieval of the current effective user id.  Refer to the OS ERRNO table."},
};
constexpr MessageRow kHomeGetter[] = {
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to return the username string."},
    {PROC_INVALID_USERNAME, "An invalid passwd structure was obtained from the OS."},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS user registry."},
    {PROC_NOT_SUPPORTED,
     "Getting of the current process effective home directory is not supported on this operating system."},
    {kOther, "An error occurred during the retrieval of the current effective user id, so home directory could "
             "not be obtained.  Refer to the OS ERRNO table."},
};
constexpr MessageRow kUserSetter[] = {
    {PROC_ACCESS_DENIED,
     "The operating system would not allow assignment of the process to user: [%s].  Access Denied.\n"},
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to obtain the passwd structure."},
    {PROC_INVALID_USERNAME, "The operating system would not allow assignment of the process to user: [%s].  The "
                            "user does not exist in the OS group registry\n"},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS group registry."},
    {PROC_NOT_SUPPORTED, "Setting of the current process effective user is not supported on this operating system."},
    {kOther, "An error occurred during the setting of the current effective group id.  Refer to the OS ERRNO table."},
};
constexpr MessageRow kGroupSetter[] = {
    {PROC_ACCESS_DENIED,
     "The operating system would not allow assignment of the process to group: [%s].  Access Denied.\n"},
    {PROC_OUT_OF_MEMORY, "Failed to allocate enough memory to obtain the group structure."},
    {PROC_INVALID_GROUP, "The operating system would not allow assignment of the process to group: [%s].  The "
                         "group does not exist in the OS group registry\n"},
    {PROC_OUT_OF_FILE_HANDLES, "Too many file handles are currently open.  Cannot access OS group registry."},
    {PROC_NOT_SUPPORTED,
     "Setting of the current process effective group is not supported on this operating system."},
    {kOther, "An error occurred during the setting of the current effective group id.  Refer to the OS ERRNO table."},
};

// What tells the identity natives of one family apart; the formats are checked where they are used.
struct IdentityNative {
    const char* label;
    const char* success;
    const char* failure;
    const MessageRow* messages;
};

constexpr IdentityNative kGetUser = {
    "UnixProcessGlue_getCurrentProcessUser()",
    "Successfully obtained the username as a UTF-8 string.  String contents: [%s]\n",
    "Failed to obtain the process current effective user as a string.  Result was: [%d].  sysErr was: [%d]\n",
    kUserGetter};
constexpr IdentityNative kGetGroup = {
    "UnixProcessGlue_getCurrentProcessGroup()",
    "Successfully obtained the username as a UTF-8 string.  String contents: [%s]\n",
    "Failed to obtain the process current effective group as a string.  Result was: [%d].  sysErr was: [%d]\n",
    kGroupGetter};
constexpr IdentityNative kGetHome = {
    "UnixProcessGlue_getCurrentProcessUserOSHomeDir()",
    "Successfully obtained the home directory the process current user as directory (in UTF-8): [%s]\n",
    "Failed to obtain the process current effective user's home directory as a string.  Result was: [%d].  "
    "sysErr was: [%d]\n",
    kHomeGetter};
constexpr IdentityNative kSetUser = {
    "UnixProcessGlue_setCurrentProcessUser()", "Successfully set the process user to: [%s]\n",
    "Failed to set the process current effective user to [%s].  Result was: [%d].  sysErr was: [%d]\n",
    kUserSetter};
constexpr IdentityNative kSetGroup = {
    "UnixProcessGlue_setCurrentProcessGroup()", "Successfully set the process group to: [%s]\n",
    "Failed to set the process current effective group to [%s].  Result was: [%d].  sysErr was: [%d]\n",
    kGroupSetter};

// A getter's text, or the exception of its result with the row's message.
template <const IdentityNative& Native, size_t Size>
jstring get_identity(JNIEnv* env, int (*get)(char*, size_t, int*)) {
    TraceScope trace(Native.label);
    char text[Size] = {};
    int sysErr = 0;
    int result = get(text, Size, &sysErr);
    if (result == PROC_SUCCESS) {
        process_log(Native.success, text);
        return java_string_from_utf8(env, text);
    }
    process_err(Native.failure, result, sysErr);
    ThrowException(env, result, message_for(Native.messages, result), sysErr);
    return nullptr;
}

// A setter's change, or its exception with the row's message (those that name the user or group carry
// it). A name with a NUL inside names no one and is refused as an invalid argument.
template <const IdentityNative& Native>
void set_identity(JNIEnv* env, jstring name, const char* nullMessage, int (*set)(const char*, int*)) {
    TraceScope trace(Native.label);
    if (name == nullptr) return ThrowException(env, PROC_SYSTEM_ERR, nullMessage, 0);
    char text[kNameSize] = {};
    int sysErr = 0;
    int result = PROC_SUCCESS;
    if (bounded_text(env, name, text, sizeof text, &sysErr))
        result = set(text, &sysErr);
    else
        result = sysErr == ENOMEM ? PROC_OUT_OF_MEMORY : PROC_SYSTEM_ERR;
    if (result == PROC_SUCCESS) {
        process_log(Native.success, text);
        return;
    }
    process_err(Native.failure, text, result, sysErr);
    char message[kNameSize];
    snprintf(message, sizeof message, message_for(Native.messages, result), text);
    ThrowException(env, result, message, sysErr);
}
// The create native's launch: a new record with PID "0" and isAlive 1 through unix_spawnProcess's path;
// its handle, or 0 with the exception of the failure pending.
jlong launch_handle(JNIEnv* env, LaunchRequest* request, bool detached) {
    UnixProcessData* data = new_record();
    if (data == nullptr) {
        ThrowException(env, PROC_OUT_OF_MEMORY, "Error creating new process.", 0);
        return 0;
    }
    copy_bounded(data->pid, "0", kPidTextSize);
    data->isAlive = 1;
    request->detached = detached;
    int sysErr = 0;
    int result = spawn_request(*request, data, &sysErr);
    jlong handle = result == PROC_SUCCESS ? register_record(data) : 0;
    if (result == PROC_SUCCESS && handle == 0) { // no handle for a running process: it must not run on
        signal_process(entry_of(data), record_pid(data), SIGKILL);
        if (!detached) await_and_collect_child(entry_of(data));
        sysErr = ENOMEM;
        result = PROC_OUT_OF_MEMORY;
    }
    if (result != PROC_SUCCESS) {
        process_err("Creation failure, spawn was unsuccessful.  Therefore deallocating process structure at: "
                    "[0x%x]\n",
                    trace_ptr(data));
        destroy_record(data);
        ThrowException(env, result, "Error creating new process.", sysErr);
        return 0;
    }
    process_log("Created new process.  Process ID for created process: [%d]\n", record_pid(data));
    return handle;
}
} // namespace

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_create(
    JNIEnv* env, jobject, jstring executable, jobjectArray arguments, jobjectArray environment,
    jstring workingDirectory, jint priority, jobjectArray stdFiles, jlong fileMask, jstring groupName,
    jstring userName, jint processGroup, jstring extraName, jboolean ignoreStdFiles, jboolean detached) {
    TraceScope trace("UnixProcessGlue_create()");
    const bool ignoreFiles = ignoreStdFiles == 1;
    if (executable == nullptr) {
        ThrowException(env, PROC_INVALID_EXECUTABLE, "Invalid executable.", 0);
        return 0;
    }
    LaunchRequest request;
    JavaTexts texts(env, request.arena);
    // The three redirections are read by index: a shorter array is refused before anything is made.
    if (!ignoreFiles && stdFiles != nullptr && env->GetArrayLength(stdFiles) < 3)
        texts.refuse(PROC_SYSTEM_ERR, EINVAL);
    const char* program = texts.text(executable);
    char** argumentList = texts.array(arguments);
    char** entries = texts.array(environment);
    const char* directory = texts.text(workingDirectory);
    char** files = ignoreFiles ? nullptr : texts.array(stdFiles);
    const char* group = texts.text(groupName);
    const char* user = texts.text(userName);
    texts.text(extraName); // carried by the request form, used by nothing
    request_from_arguments(&request, program, argumentList, entries, directory, priority, files, fileMask,
                           group, user, processGroup);
    if (!texts.ok()) {
        texts.raise("Error creating new process.");
        return 0;
    }
    return launch_handle(env, &request, detached == 1);
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_createSelf(JNIEnv* env, jobject) {
    TraceScope trace("UnixProcessGlue_createSelf()");
    UnixProcessData* data = new_record();
    if (data == nullptr) {
        ThrowException(env, PROC_OUT_OF_MEMORY, "Error in createSelf. ", ENOMEM);
        return 0;
    }
    snprintf(data->pid, kPidTextSize, "%d", linux_getpid());
    int sysErr = 0;
    int result = unix_AdoptProcess(data, &sysErr);
    jlong handle = result == PROC_SUCCESS ? register_record(data) : 0;
    if (result == PROC_SUCCESS && handle == 0) {
        result = PROC_OUT_OF_MEMORY;
        sysErr = ENOMEM;
    }
    if (result != PROC_SUCCESS) {
        process_log("Recreation of self failure.  Therefore deallocating process structure at: [0x%x]\n",
                    trace_ptr(data));
        destroy_record(data);
        ThrowException(env, result, "Error in createSelf. ", sysErr);
    }
    return handle;
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_recreate(JNIEnv* env, jobject,
                                                                                  jstring pidText) {
    TraceScope trace("UnixProcessGlue_recreate()");
    int result = PROC_SUCCESS;
    int sysErr = 0;
    UnixProcessData* data = nullptr;
    char text[kPidTextSize] = {};
    jlong handle = 0;
    if (pidText == nullptr) {
        result = PROC_SYSTEM_ERR;
    } else if (!bounded_text(env, pidText, text, sizeof text, &sysErr)) {
        result = sysErr == ENOMEM ? PROC_OUT_OF_MEMORY : PROC_SYSTEM_ERR;
    } else if (atoi(text) <= 0) { // 0 and negative numbers name process groups to waitpid and kill
        result = PROC_SYSTEM_ERR;
        sysErr = EINVAL;
    } else if ((data = new_record()) == nullptr) {
        result = PROC_OUT_OF_MEMORY;
        sysErr = ENOMEM;
    } else {
        copy_bounded(data->pid, text, kPidTextSize);
        result = unix_AdoptProcess(data, &sysErr);
        if (result == PROC_SUCCESS && (handle = register_record(data)) == 0) {
            result = PROC_OUT_OF_MEMORY;
            sysErr = ENOMEM;
        }
    }
    if (result == PROC_SUCCESS) {
        process_log("Successfully recreated process [%s]\n", data->pid);
        return handle;
    }
    if (data != nullptr) {
        process_log("Recreation failure.  Therefore deallocating process structure at: [0x%x]\n", trace_ptr(data));
        destroy_record(data);
    }
    ThrowException(env, result, "Error recreating process object. ", sysErr);
    return 0;
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_id(JNIEnv* env, jobject,
                                                                              jlong handle) {
    TraceScope trace("UnixProcessGlue_id()");
    RecordRef record(handle);
    if (!record) {
        refuse_handle(env, "Error getting process id. ");
        return nullptr;
    }
    return java_string(env, record->pid);
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_ping(JNIEnv* env, jobject,
                                                                             jlong handle) {
    TraceScope trace("UnixProcessGlue_ping()");
    RecordRef record(handle);
    return look_at(env, record, "Error pinging process. ", unix_PingProcess) ? load_field(record->isAlive) : 0;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_done(JNIEnv*, jobject, jlong handle) {
    TraceScope trace("UnixProcessGlue_done()");
    {
        RecordRef record(handle);
        if (!record) return; // 0, a handle given to done already, or none of ours: nothing to release
        process_log("Deallocating data at: [0x%x], for process: [%s]\n", trace_ptr(record.get()), record->pid);
    }
    retire_record(handle);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_waitForTermination(JNIEnv* env,
                                                                                           jobject,
                                                                                           jlong handle) {
    wait_native(env, handle, "Attempt to wait for self to terminate", unix_WaitForProcessTermination);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_waitForTerminationWithTimeout(
    JNIEnv* env, jobject, jlong handle, jint timeoutSeconds) {
    wait_native(env, handle, "Attempt to wait for self to terminate. ", [timeoutSeconds](UnixProcessData* d, int* e) {
        return unix_WaitForProcessTerminationWithTimeout(d, static_cast<uint32_t>(timeoutSeconds), e);
    });
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_getExitCode(JNIEnv* env, jobject,
                                                                                    jlong handle) {
    TraceScope trace("UnixProcessGlue_getExitCode()");
    RecordRef record(handle);
    if (!look_at(env, record, "Error getting exitcode. ", unix_GetProcessExitCode)) return 0;
    // A waiter may have seen the end before storing it; the code is final once no wait is in progress.
    await_no_waiters(record.get());
    return load_field(record->exitCode);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_stop(JNIEnv* env, jobject, jlong handle) {
    signal_native(env, handle, "UnixProcessGlue_stop()", "Error stopping process. ", [](UnixProcessData* d, int* e) {
        int alive = load_field(d->isAlive);
        process_log("Trying to stop process (PID): [%s].  Process state is: [%d]\n", d->pid, alive);
        return alive == 0 ? PROC_SUCCESS : unix_StopProcess(d, e);
    });
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_kill(JNIEnv* env, jobject, jlong handle) {
    signal_native(env, handle, "UnixProcessGlue_kill()", "Error terminating process. ", [](UnixProcessData* d, int* e) {
        process_log("Trying to kill process (PID): [%s].  Process state is: [%d]\n", d->pid, load_field(d->isAlive));
        return unix_KillProcess(d, e);
    });
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_pokeVMThreadDump(JNIEnv* env, jobject,
                                                                                         jlong handle) {
    signal_native(env, handle, "UnixProcessGlue_pokeVMThreadDump()", "Error causing JVM dump. ",
                  unix_GenerateJVMThreadDump);
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_getCurrentProcessUser(JNIEnv* env,
                                                                                                 jobject) {
    return get_identity<kGetUser, 1024>(env, unix_getUser);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_setCurrentProcessUser(JNIEnv* env, jobject,
                                                                                              jstring userName) {
    set_identity<kSetUser>(env, userName, "A NULL java string was passed in for user name.  This is invalid.",
                           unix_setUser);
}

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_isUserPrivileged(JNIEnv*, jobject) {
    TraceScope trace("UnixProcessGlue_isUserPrivileged()");
    return getuid() == 0 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_getCurrentProcessGroup(JNIEnv* env,
                                                                                                  jobject) {
    return get_identity<kGetGroup, 1024>(env, unix_getGroup);
}

// A home directory as long as a path may be.
JNIEXPORT jstring JNICALL
Java_com_norvane_quillon_process_UnixProcessGlue_getCurrentProcessUserOSHomeDir(JNIEnv* env, jobject) {
    return get_identity<kGetHome, 12288>(env, unix_getUserHomeDirectory);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_setCurrentProcessGroup(JNIEnv* env, jobject,
                                                                                               jstring groupName) {
    set_identity<kSetGroup>(env, groupName, "A NULL java string was passed in for group name.  This is invalid.",
                            unix_setGroup);
}

QUILLON_API void unix_DeallocateProcessSpawnData(UnixProcessData* data, int*) {
    TraceScope trace("unix_DeallocateProcessSpawnData()");
    if (data == nullptr) return;
    for (char** text : {&data->executable, &data->workingDirectory, &data->userName, &data->groupName,
                        &data->extraName}) {
        free(*text);
        *text = nullptr;
    }
    for (char*** array : {&data->arguments, &data->environment, &data->stdFiles}) {
        ReleaseCStrArray(*array);
        *array = nullptr;
    }
}
