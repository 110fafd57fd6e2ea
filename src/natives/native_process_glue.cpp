// Natives of NativeProcessGlue, behind the public Java API: a launch with pipes, descriptor I/O, waits in
// milliseconds, how a process ended, the watcher of process ends, and the kill of a process tree.
#include <cerrno>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "boundary/jni_support.h"
#include "com_norvane_quillon_process_NativeProcessGlue.h"
#include "natives/launch_from_java.h"
#include "quillon/boundary.h"
#include "supervision/supervision_internal.h"
#include "supervision/tree.h"
#include "supervision/watcher.h"

namespace {
constexpr size_t kStackBuffer = 8192;
constexpr size_t kLargestTransfer = 1 << 20;

void throw_io(JNIEnv* env, int err) {
    const char* text = strerrordesc_np(err);
    throw_java(env, "java/io/IOException", text != nullptr ? text : "input/output error");
}

bool in_bounds(JNIEnv* env, jbyteArray buffer, jint offset, jint length) {
    if (buffer == nullptr) {
        throw_java(env, "java/lang/NullPointerException", "buffer");
        return false;
    }
    jsize size = env->GetArrayLength(buffer);
    if (offset < 0 || length < 0 || offset > size - length) {
        throw_java(env, "java/lang/IndexOutOfBoundsException", "offset or length");
        return false;
    }
    return true;
}

// A buffer for one transfer: on the stack when small, else from malloc (null when memory ran out).
class TransferBuffer {
  public:
    explicit TransferBuffer(size_t size)
        : heap_(size > kStackBuffer ? static_cast<char*>(malloc(size)) : nullptr),
          data_(size > kStackBuffer ? heap_.get() : stack_) {}
    char* get() { return data_; }

  private:
    char stack_[kStackBuffer];
    MallocPtr<char> heap_;
    char* data_;
};

// Each descriptor of a launch, checked: three dispositions, paths where a file is named.
bool take_dispositions(JNIEnv* env, JavaTexts& texts, LaunchRequest* request, jintArray modes, jobjectArray paths,
                       jintArray pipeFds) {
    if (modes == nullptr || pipeFds == nullptr || env->GetArrayLength(modes) < 3 || env->GetArrayLength(pipeFds) < 3 ||
        (paths != nullptr && env->GetArrayLength(paths) < 3)) {
        texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        return false;
    }
    jint mode[3];
    env->GetIntArrayRegion(modes, 0, 3, mode);
    char** names = texts.array(paths);
    for (int i = 0; i < 3 && texts.ok(); ++i) {
        bool named = mode[i] == kStdRead || mode[i] == kStdWrite || mode[i] == kStdAppend;
        bool known = mode[i] >= kStdInherit && mode[i] <= kStdAsStdout;
        if (!known || (named && (names == nullptr || names[i] == nullptr)) || (mode[i] == kStdAsStdout && i != 2) ||
            (mode[i] == kStdRead && i != 0))
            texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        request->std[i] = {mode[i], named ? names[i] : nullptr};
    }
    return texts.ok();
}
} // namespace

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_launch(
    JNIEnv* env, jobject, jstring executable, jobjectArray arguments, jobjectArray environment,
    jboolean replaceEnvironment, jstring workingDirectory, jint nice, jintArray stdModes, jobjectArray stdPaths,
    jint fileMask, jstring groupName, jstring userName, jint processGroup, jboolean detached, jintArray pipeFds) {
    TraceScope trace("NativeProcessGlue_launch()");
    if (executable == nullptr) {
        ThrowException(env, PROC_INVALID_EXECUTABLE, "Invalid executable.", 0);
        return 0;
    }
    LaunchRequest request;
    JavaTexts texts(env, request.arena);
    request.executable = texts.text(executable);
    request.arguments = texts.array(arguments);
    request.environment = texts.array(environment);
    request.replaceEnvironment = replaceEnvironment == JNI_TRUE;
    request.workingDirectory = texts.text(workingDirectory);
    request.priority = int64_t{nice} + 20;
    take_dispositions(env, texts, &request, stdModes, stdPaths, pipeFds);
    request.fileMask = fileMask;
    request.groupName = texts.text(groupName);
    request.userName = texts.text(userName);
    request.keepProcessGroup = processGroup == -1;
    request.processGroup = processGroup;
    if (!texts.ok()) {
        texts.raise("Error creating new process.");
        return 0;
    }
    jlong handle = launch_handle(env, &request, detached == JNI_TRUE);
    if (handle == 0) return 0;
    jint ends[3];
    for (int i = 0; i < 3; ++i)
        ends[i] = request.hostPipeEnds[i].release();
    env->SetIntArrayRegion(pipeFds, 0, 3, ends);
    return handle;
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_read(JNIEnv* env, jobject, jint fd,
                                                                               jbyteArray buffer, jint offset,
                                                                               jint length) {
    if (!in_bounds(env, buffer, offset, length)) return -1;
    if (length == 0) return 0;
    size_t size = static_cast<size_t>(length) < kLargestTransfer ? static_cast<size_t>(length) : kLargestTransfer;
    TransferBuffer bytes(size);
    if (bytes.get() == nullptr) {
        throw_java(env, "java/lang/OutOfMemoryError", "pipe buffer");
        return -1;
    }
    ssize_t got = retry_on_eintr([&] { return read(fd, bytes.get(), size); });
    if (got < 0) {
        throw_io(env, errno);
        return -1;
    }
    if (got == 0) return -1;
    env->SetByteArrayRegion(buffer, offset, static_cast<jsize>(got), reinterpret_cast<jbyte*>(bytes.get()));
    return static_cast<jint>(got);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_write(JNIEnv* env, jobject, jint fd,
                                                                                jbyteArray buffer, jint offset,
                                                                                jint length) {
    if (!in_bounds(env, buffer, offset, length)) return;
    while (length > 0) {
        size_t size = static_cast<size_t>(length) < kLargestTransfer ? static_cast<size_t>(length) : kLargestTransfer;
        TransferBuffer bytes(size);
        if (bytes.get() == nullptr) return throw_java(env, "java/lang/OutOfMemoryError", "pipe buffer");
        env->GetByteArrayRegion(buffer, offset, static_cast<jsize>(size), reinterpret_cast<jbyte*>(bytes.get()));
        for (size_t done = 0; done < size;) {
            ssize_t put = retry_on_eintr([&] { return write(fd, bytes.get() + done, size - done); });
            if (put < 0) return throw_io(env, errno);
            done += static_cast<size_t>(put);
        }
        offset += static_cast<jint>(size);
        length -= static_cast<jint>(size);
    }
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_available(JNIEnv* env, jobject, jint fd) {
    int count = 0;
    if (ioctl(fd, FIONREAD, &count) != 0) {
        throw_io(env, errno);
        return 0;
    }
    return count;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_close(JNIEnv* env, jobject, jint fd) {
    if (close(fd) != 0 && errno != EINTR) throw_io(env, errno);
}

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_waitFor(JNIEnv* env, jobject,
                                                                                      jlong handle,
                                                                                      jlong timeoutMillis) {
    RecordRef record(handle);
    if (!record) {
        ThrowException(env, PROC_SYSTEM_ERR, "Error waiting for process to terminate. ", EINVAL);
        return JNI_FALSE;
    }
    UnixProcessData* data = record.get();
    if (record_pid(data) == linux_getpid()) {
        ThrowException(env, PROC_WAIT_FOR_SELF, "Attempt to wait for self to terminate. ", 0);
        return JNI_FALSE;
    }
    if (load_field(data->isAlive) == 0) return JNI_TRUE;
    int sysErr = 0;
    change_waiters(data, +1);
    int result = timeoutMillis < 0 ? unix_WaitForProcessTermination(data, &sysErr)
                                   : wait_with_timeout(data, timeoutMillis, &sysErr);
    change_waiters(data, -1);
    if (result == PROC_STILL_ACTIVE) return JNI_FALSE;
    if (result != PROC_SUCCESS) ThrowException(env, result, "Error waiting for process to terminate. ", sysErr);
    return result == PROC_SUCCESS ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_terminationSignal(JNIEnv* env, jobject,
                                                                                           jlong handle) {
    RecordRef record(handle);
    if (!record) {
        ThrowException(env, PROC_SYSTEM_ERR, "Error getting exitcode. ", EINVAL);
        return 0;
    }
    UnixProcessData* data = record.get();
    return load_field(data->isAlive) == 0 && entry_of(data) != nullptr ? entry_signal(entry_of(data)) : 0;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_watch(JNIEnv* env, jobject, jlong handle) {
    RecordRef record(handle);
    if (!record) return ThrowException(env, PROC_SYSTEM_ERR, "Error watching process. ", EINVAL);
    int sysErr = 0;
    int result = watch_record(handle, record.get(), &sysErr);
    if (result != PROC_SUCCESS) ThrowException(env, result, "Error watching process. ", sysErr);
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_awaitEnded(JNIEnv* env, jobject,
                                                                                     jlongArray ended,
                                                                                     jint timeoutMillis) {
    if (ended == nullptr) {
        throw_java(env, "java/lang/NullPointerException", "ended");
        return 0;
    }
    jsize capacity = env->GetArrayLength(ended);
    if (capacity > 256) capacity = 256;
    int64_t handles[256];
    int count = await_ended(handles, capacity, timeoutMillis);
    static_assert(sizeof(jlong) == sizeof(int64_t));
    env->SetLongArrayRegion(ended, 0, count, reinterpret_cast<jlong*>(handles));
    return count;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_killTree(JNIEnv* env, jobject, jlong handle) {
    RecordRef record(handle);
    if (!record) return ThrowException(env, PROC_SYSTEM_ERR, "Error terminating process. ", EINVAL);
    int sysErr = 0;
    int result = kill_tree(record.get(), &sysErr);
    if (result != PROC_SUCCESS) ThrowException(env, result, "Error terminating process. ", sysErr);
}
