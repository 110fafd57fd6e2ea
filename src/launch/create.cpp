// The create native: a launch request from Java becomes a record, a launch and a handle.
#include <cstdlib>
#include <cstring>

#include "com_norvane_quillon_process_UnixProcessGlue.h"
#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

namespace {
constexpr size_t kTextSize = 12288;
constexpr const char* kLabel = "UnixProcessGlue_create()";

enum class Allocation { Clear, CopyFailed, RecordFailed };

// Converts a Java string into `buffer`; a null reference gives the empty text.
void convert(JNIEnv* env, jstring string, char (&buffer)[kTextSize]) {
    buffer[0] = 0;
    if (string != nullptr) process_GetNativeStringFromJString(env, buffer, string, kTextSize);
}

char** convert_array(JNIEnv* env, jobjectArray array) {
    return array != nullptr ? javaStrArrayToCStrArray(env, array) : nullptr;
}

// A heap copy of the converted text for a non-null Java reference; marks a failed allocation.
char* copy_field(jstring reference, const char* text, Allocation* mark) {
    if (reference == nullptr) return nullptr;
    char* copy = strdup(text);
    if (copy == nullptr) *mark = Allocation::CopyFailed;
    return copy;
}

void free_and_clear(char*& field) {
    free(field);
    field = nullptr;
}

void release_and_clear(char**& field) {
    ReleaseCStrArray(field);
    field = nullptr;
}
} // namespace

QUILLON_API int unix_spawnProcess(UnixProcessData* data, int detached, int* sysErr) {
    process_log_entry("unix_spawnProcess()");
    int result = PROC_SUCCESS;
    if (record_pid(data) == 0) {
        auto launch = detached != 0 ? unix_CreateDetachedProcess : unix_CreateProcess;
        process_log(detached != 0 ? "Calling unix_CreateDetachedProcess.\n"
                                  : "Calling unix_CreateProcess.\n");
        result = launch(data->executable, data->arguments, data->environment, data->workingDirectory,
                        data->priority, data->stdFiles, data->fileMask, data->groupName, data->userName,
                        data->processGroup, data, sysErr);
        process_log("Result from spawn was: [%d].\n", result);
    }
    process_log_exit("unix_spawnProcess()");
    return result;
}

QUILLON_API void unix_DeallocateProcessSpawnData(UnixProcessData* data, int*) {
    process_log_entry("unix_DeallocateProcessSpawnData()");
    if (data != nullptr) {
        free_and_clear(data->executable);
        free_and_clear(data->workingDirectory);
        free_and_clear(data->userName);
        free_and_clear(data->groupName);
        free_and_clear(data->extraName);
        release_and_clear(data->arguments);
        release_and_clear(data->environment);
        release_and_clear(data->stdFiles);
    }
    process_log_exit("unix_DeallocateProcessSpawnData()");
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_UnixProcessGlue_create(
    JNIEnv* env, jobject, jstring executable, jobjectArray arguments, jobjectArray environment,
    jstring workingDirectory, jint priority, jobjectArray stdFiles, jlong fileMask, jstring groupName,
    jstring userName, jint processGroup, jstring extraName, jboolean ignoreStdFiles, jboolean detached) {
    process_log_entry(kLabel);
    const bool ignoreFiles = ignoreStdFiles == 1;
    const bool detach = detached == 1;
    if (executable == nullptr) {
        ThrowWithMessage(env, PROC_INVALID_EXECUTABLE, "Invalid executable.", 0);
        process_log_exit(kLabel);
        return 0;
    }

    char executableText[kTextSize];
    char directoryText[kTextSize];
    char groupText[kTextSize];
    char userText[kTextSize];
    char extraText[kTextSize];
    convert(env, executable, executableText);
    convert(env, workingDirectory, directoryText);
    char** argumentArray = convert_array(env, arguments);
    char** environmentArray = convert_array(env, environment);
    char** fileArray = ignoreFiles ? nullptr : convert_array(env, stdFiles);
    convert(env, groupName, groupText);
    convert(env, userName, userText);
    convert(env, extraName, extraText);

    int sysErr = 0;
    int result;
    Allocation mark = Allocation::Clear;
    // A Java array that could not be made native means the heap ran out.
    if ((arguments != nullptr && argumentArray == nullptr) ||
        (environment != nullptr && environmentArray == nullptr) ||
        (!ignoreFiles && stdFiles != nullptr && fileArray == nullptr))
        mark = Allocation::CopyFailed;
    UnixProcessData* data = NewProcessData();
    if (data == nullptr) {
        mark = Allocation::RecordFailed;
        ReleaseCStrArray(argumentArray);
        ReleaseCStrArray(environmentArray);
        ReleaseCStrArray(fileArray);
        result = PROC_OUT_OF_MEMORY;
    } else {
        data->executable = copy_field(executable, executableText, &mark);
        data->arguments = argumentArray;
        data->environment = environmentArray;
        data->workingDirectory = copy_field(workingDirectory, directoryText, &mark);
        data->priority = priority;
        data->stdFiles = fileArray;
        data->fileMask = fileMask;
        data->groupName = copy_field(groupName, groupText, &mark);
        data->userName = copy_field(userName, userText, &mark);
        data->extraName = copy_field(extraName, extraText, &mark);
        data->processGroup = processGroup;
        sysErr = 0;
        copy_bounded(data->pid, "0", kPidTextSize);
        data->isAlive = 1;
        result =
            mark == Allocation::Clear ? unix_spawnProcess(data, detach ? 1 : 0, &sysErr) : PROC_OUT_OF_MEMORY;
        unix_DeallocateProcessSpawnData(data, &sysErr);
    }

    if (result != PROC_SUCCESS) {
        if (data != nullptr) {
            process_err(
                "Creation failure, spawn was unsuccessful.  Therefore deallocating process structure at: "
                "[0x%x]\n",
                trace_ptr(data));
            unix_doneWithProcess(data, &sysErr);
            free(data);
            data = nullptr;
        }
        ThrowWithMessage(env, result, "Error creating new process.",
                         mark == Allocation::RecordFailed ? 0 : sysErr);
    } else {
        process_log("Created new process.  Process ID for created process: [%d]\n", record_pid(data));
    }
    process_log_exit(kLabel);
    return process_ConvertPointerTo64(data);
}
