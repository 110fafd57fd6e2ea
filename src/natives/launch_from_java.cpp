#include "natives/launch_from_java.h"

#include <cerrno>
#include <csignal>

#include "quillon/boundary.h"
#include "supervision/supervision_internal.h"

const char* JavaTexts::text(jstring string) {
    if (string == nullptr || !ok()) return nullptr;
    char* text = nullptr;
    bool hasNul = false;
    if (!native_text(env_, string, arena_, &text, &hasNul))
        refuse(PROC_OUT_OF_MEMORY, ENOMEM);
    else if (hasNul)
        refuse(PROC_SYSTEM_ERR, EINVAL);
    return text;
}

char** JavaTexts::array(jobjectArray array) {
    if (array == nullptr || !ok()) return nullptr;
    jsize count = env_->GetArrayLength(array);
    char** vector = arena_.allocate_array<char*>(static_cast<size_t>(count) + 1);
    if (vector == nullptr) {
        refuse(PROC_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
    for (jsize i = 0; i < count && ok(); ++i) {
        LocalRef<jstring> element(env_, static_cast<jstring>(env_->GetObjectArrayElement(array, i)));
        vector[i] = const_cast<char*>(text(element.get()));
    }
    vector[count] = nullptr;
    return vector;
}

void JavaTexts::raise(const char* message) const {
    if (!env_->ExceptionCheck()) ThrowException(env_, result_, message, sysErr_);
}

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
    int result = spawn_request(request, data, &sysErr);
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
