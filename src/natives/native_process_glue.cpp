// Natives of NativeProcessGlue, behind the public Java API: a launch with pipes, descriptor I/O, waits in
// milliseconds, how a process ended, the watcher of process ends, and the kill of a process tree.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/resource.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "boundary/jni_support.h"
#include "com_norvane_quillon_process_NativeProcessGlue.h"
#include "natives/launch_from_java.h"
#include "natives/record_launch.h"
#include "quillon/boundary.h"
#include "supervision/supervision_internal.h"
#include "supervision/events.h"
#include "supervision/tree.h"
#include "supervision/trees.h"

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

// The slots of the launch native's arrays, as NativeProcessGlue names them.
constexpr jlong kUnset = com_norvane_quillon_process_NativeProcessGlue_UNSET;
constexpr int kSettingFlags = com_norvane_quillon_process_NativeProcessGlue_SETTING_FLAGS;
constexpr int kSettingNice = com_norvane_quillon_process_NativeProcessGlue_SETTING_NICE;
constexpr int kSettingUmask = com_norvane_quillon_process_NativeProcessGlue_SETTING_UMASK;
constexpr int kSettingProcessGroup = com_norvane_quillon_process_NativeProcessGlue_SETTING_PROCESS_GROUP;
constexpr int kSettingStdFds = com_norvane_quillon_process_NativeProcessGlue_SETTING_STD_FDS;
constexpr int kSettingMemoryLimit = com_norvane_quillon_process_NativeProcessGlue_SETTING_MEMORY_LIMIT;
constexpr int kSettingProcessLimit = com_norvane_quillon_process_NativeProcessGlue_SETTING_PROCESS_LIMIT;
constexpr int kSettings = com_norvane_quillon_process_NativeProcessGlue_SETTINGS;
constexpr jlong kFlagDetached = com_norvane_quillon_process_NativeProcessGlue_FLAG_DETACHED;
constexpr jlong kFlagContained = com_norvane_quillon_process_NativeProcessGlue_FLAG_CONTAINED;
constexpr jlong kFlagEndWithJvm = com_norvane_quillon_process_NativeProcessGlue_FLAG_END_WITH_JVM;
constexpr int kLaunchedPid = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_PID;
constexpr int kLaunchedPipes = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_PIPES;
constexpr int kLaunchedStep = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_STEP;
constexpr int kLaunchedDetail = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_DETAIL;
constexpr int kLaunchedErrno = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_ERRNO;
constexpr int kLaunchedTree = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_TREE;
constexpr int kLaunchedContainment = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED_CONTAINMENT;
constexpr int kLaunched = com_norvane_quillon_process_NativeProcessGlue_LAUNCHED;
constexpr int kGroupInherit = com_norvane_quillon_process_NativeProcessGlue_GROUP_INHERIT;

static_assert(com_norvane_quillon_process_NativeProcessGlue_STD_DESCRIPTOR == kStdDescriptor);

// Each descriptor of a launch, checked: three dispositions, paths where a file is named, the descriptors to
// duplicate (in the settings) where one is given.
bool take_dispositions(JNIEnv* env, JavaTexts& texts, LaunchRequest* request, jintArray modes,
                       jobjectArray paths) {
    if (modes == nullptr || env->GetArrayLength(modes) < 3 ||
        (paths != nullptr && env->GetArrayLength(paths) < 3)) {
        texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        return false;
    }
    jint mode[3];
    env->GetIntArrayRegion(modes, 0, 3, mode);
    char** names = texts.array(paths);
    for (int i = 0; i < 3 && texts.ok(); ++i) {
        bool named = mode[i] == kStdRead || mode[i] == kStdWrite || mode[i] == kStdAppend;
        bool known = (mode[i] >= kStdInherit && mode[i] <= kStdAsStdout) || mode[i] == kStdDescriptor;
        if (!known || (named && (names == nullptr || names[i] == nullptr)) || (mode[i] == kStdAsStdout && i != 2) ||
            (mode[i] == kStdRead && i != 0))
            texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        request->std[i] = {mode[i], named ? names[i] : nullptr};
    }
    return texts.ok();
}

// What a launch asks of the tree it starts: whether it is contained, and its limits.
struct TreeAsked {
    bool contained = false;
    TreeLimits limits;
};

// The settings slots into the request: what is unset stays untouched in the new process.
bool take_settings(JNIEnv* env, JavaTexts& texts, LaunchRequest* request, TreeAsked* tree,
                   jlongArray settings) {
    if (settings == nullptr || env->GetArrayLength(settings) < kSettings) {
        texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        return false;
    }
    jlong value[kSettings];
    env->GetLongArrayRegion(settings, 0, kSettings, value);
    request->detached = (value[kSettingFlags] & kFlagDetached) != 0;
    request->endWithLauncher = (value[kSettingFlags] & kFlagEndWithJvm) != 0;
    tree->contained = (value[kSettingFlags] & kFlagContained) != 0;
    jlong memory = value[kSettingMemoryLimit];
    jlong processes = value[kSettingProcessLimit];
    if ((memory != kUnset && memory < 0) || (processes != kUnset && processes < 0))
        texts.refuse(PROC_SYSTEM_ERR, EINVAL);
    tree->limits.memoryBytes = memory != kUnset ? memory : -1;
    tree->limits.processes = processes != kUnset ? processes : -1;
    if (value[kSettingNice] != kUnset)
        request->nice = static_cast<int>(std::clamp<jlong>(value[kSettingNice], -20, 19));
    if (value[kSettingUmask] != kUnset) {
        if (value[kSettingUmask] < 0 || value[kSettingUmask] > 0777) texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        request->fileMask = static_cast<mode_t>(value[kSettingUmask] & 0777);
    }
    for (int i = 0; i < 3; ++i) {
        if (request->std[i].mode != kStdDescriptor) continue;
        jlong fd = value[kSettingStdFds + i];
        if (fd < 0 || fd > INT32_MAX || fcntl(static_cast<int>(fd), F_GETFD) == -1)
            texts.refuse(PROC_SYSTEM_ERR, EBADF);
        request->std[i].fd = static_cast<int>(fd);
    }
    jlong group = value[kSettingProcessGroup];
    if (group < kGroupInherit || group > INT32_MAX) texts.refuse(PROC_SYSTEM_ERR, EINVAL);
    request->keepProcessGroup = group == kGroupInherit;
    request->processGroup = static_cast<int>(group);
    return texts.ok();
}

// Resource limits as triples of resource, soft and hard (-1: unlimited).
bool take_limits(JNIEnv* env, JavaTexts& texts, LaunchRequest* request, jlongArray limits) {
    jsize length = limits != nullptr ? env->GetArrayLength(limits) : 0;
    if (length % 3 != 0 || length / 3 > kMaxLimits) {
        texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        return false;
    }
    jlong value[kMaxLimits * 3];
    if (length > 0) env->GetLongArrayRegion(limits, 0, length, value);
    for (jsize i = 0; i < length; i += 3) {
        if (value[i] < 0 || value[i] >= RLIM_NLIMITS || value[i + 1] < -1 || value[i + 2] < -1)
            texts.refuse(PROC_SYSTEM_ERR, EINVAL);
        auto bound = [](jlong v) {
            return v == -1 ? static_cast<uint64_t>(RLIM_INFINITY) : static_cast<uint64_t>(v);
        };
        request->limits[request->limitCount++] = {static_cast<int>(value[i]), bound(value[i + 1]),
                                                  bound(value[i + 2])};
    }
    return texts.ok();
}

// The groups of a contained tree, made before the launch and given to it; a process-group tree has the
// program lead a new group. False, with the outcome's failure, when they can't be made.
bool prepare_tree(const TreeAsked& asked, LaunchRequest& request, Tree** tree, uint64_t* groupToken,
                  LaunchOutcome& outcome) {
    if (!asked.contained) return true;
    int err = 0;
    const char* missing = nullptr;
    *tree = new_tree(asked.limits, &err, &missing);
    if (*tree == nullptr) {
        int detail = missing == nullptr ? 0 : strcmp(missing, "memory") == 0 ? 1 : 2;
        outcome.exec = {err == ENODEV ? PROC_NOT_SUPPORTED : result_for_errno(err, {}, PROC_SYSTEM_ERR), err,
                        kStepCgroup, detail};
        return false;
    }
    request.cgroupFd = tree_start_group(*tree);
    tree_joins(*tree, request.joins);
    if (request.cgroupFd < 0) {
        request.keepProcessGroup = false;
        request.processGroup = 0;
    }
    if (request.endWithLauncher && tree_kill_file(*tree) >= 0) {
        *groupToken = watchdog_register_group(tree_kill_file(*tree));
        if (*groupToken == 0) {
            outcome.exec = {PROC_SYSTEM_ERR, errno, kStepWatchdog, 0};
            discard_tree(*tree);
            *tree = nullptr;
            return false;
        }
        request.registeredByGroup = true;
    }
    return true;
}

// What the caller learns of a launch, failed or not.
void report_launch(JNIEnv* env, jlongArray launched, const LaunchOutcome& outcome) {
    jlong values[kLaunched] = {};
    values[kLaunchedPid] = outcome.pid;
    for (int i = 0; i < 3; ++i)
        values[kLaunchedPipes + i] = outcome.pipes[i].get();
    values[kLaunchedStep] = outcome.exec.step;
    values[kLaunchedDetail] = outcome.exec.detail;
    values[kLaunchedErrno] = outcome.exec.sysErr;
    env->SetLongArrayRegion(launched, 0, kLaunched, values);
}

// A killed tree that no watch follows: settled here once it is empty (within a second; the kill is one
// write), so that its groups go. Nothing else settles it: the event set never learnt of it.
void settle_unwatched(int64_t token) {
    bool released = false;
    for (int look = 0; look < 100 && !tree_settle(token, &released); ++look) {
        timespec nap = {0, 10 * 1000 * 1000};
        nanosleep(&nap, nullptr);
    }
}

// A tree whose launch made a process is followed until it is empty, when its groups go; one whose launch
// made none goes at once. Its token, 0 when it can't be followed (then a launch that succeeded is abandoned).
int64_t follow_tree(Tree* tree, const LaunchOutcome& outcome, uint64_t groupToken) {
    if (!outcome.ok() && outcome.pid <= 0) {
        if (groupToken != 0) watchdog_forget(groupToken);
        discard_tree(tree);
        return 0;
    }
    int64_t token = register_tree(tree, outcome.pid, groupToken);
    if (token == 0) {
        if (groupToken != 0) watchdog_forget(groupToken);
        discard_tree(tree);
        return 0;
    }
    if (watch_tree(token, outcome.pid) != PROC_SUCCESS) {
        tree_kill(token);
        settle_unwatched(token);
        release_tree(token);
        return 0;
    }
    return token;
}

void report_tree(JNIEnv* env, jlongArray launched, int64_t token) {
    jlong values[2] = {token, static_cast<jlong>(tree_kind(token))};
    env->SetLongArrayRegion(launched, kLaunchedTree, 2, values);
}
} // namespace

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_launch(
    JNIEnv* env, jobject, jstring executable, jobjectArray arguments, jobjectArray environment,
    jobjectArray baseEnvironment, jstring workingDirectory, jintArray stdModes, jobjectArray stdPaths,
    jstring groupName, jstring userName, jlongArray settings, jlongArray limits, jlongArray launched) {
    TraceSilence silence; // the public API reports through its exceptions alone
    if (executable == nullptr) {
        ThrowException(env, PROC_INVALID_EXECUTABLE, "Invalid executable.", 0);
        return 0;
    }
    if (launched == nullptr || env->GetArrayLength(launched) < kLaunched) {
        ThrowException(env, PROC_SYSTEM_ERR, "Error creating new process.", EINVAL);
        return 0;
    }
    LaunchRequest request;
    request.silent = true;
    request.ignoreJobControlSignals = false; // the dispositions a ProcessBuilder child gets
    JavaTexts texts(env, request.arena);
    request.executable = texts.text(executable);
    request.arguments = texts.array(arguments);
    request.environment = texts.array(environment);
    request.baseEnvironment = texts.array(baseEnvironment);
    request.workingDirectory = texts.text(workingDirectory);
    request.groupName = texts.text(groupName);
    request.userName = texts.text(userName);
    TreeAsked asked;
    // Each reads arrays through JNI: none runs once a text failed, with an exception pending perhaps.
    bool taken = texts.ok() && take_dispositions(env, texts, &request, stdModes, stdPaths) &&
                 take_settings(env, texts, &request, &asked, settings) &&
                 take_limits(env, texts, &request, limits);
    if (!taken) {
        texts.raise("Error creating new process.");
        return 0;
    }
    Tree* tree = nullptr;
    uint64_t groupToken = 0;
    LaunchOutcome outcome;
    if (prepare_tree(asked, request, &tree, &groupToken, outcome)) outcome = launch(request);
    int64_t treeToken = tree != nullptr ? follow_tree(tree, outcome, groupToken) : 0;
    if (tree != nullptr && treeToken == 0 && outcome.ok()) { // a tree nobody can follow must not run on
        abandon_launch(outcome, request.detached);
        outcome.exec = {PROC_OUT_OF_MEMORY, ENOMEM, kStepLauncher, 0};
    }
    // A child is watched from the start: its end is collected whatever happens on the Java side; so is a
    // process registered with the watchdog, which takes it back at its end.
    bool watched = !request.detached || outcome.watchdogToken != 0;
    UnixProcessData* data = outcome.ok() ? record_of_launch(outcome) : nullptr;
    jlong handle = data != nullptr ? register_record(data) : 0;
    int sysErr = 0;
    if (handle != 0 && watched && watch_record(kReapOnly, data, &sysErr) != PROC_SUCCESS) {
        retire_record(handle);
        data = nullptr;
        handle = 0;
    }
    if (outcome.ok() && handle == 0) { // a process nobody can follow must not run on
        abandon_launch(outcome, request.detached);
        if (data != nullptr) destroy_record(data);
        outcome.exec = {PROC_OUT_OF_MEMORY, ENOMEM, kStepLauncher, 0};
    }
    report_launch(env, launched, outcome);
    if (!outcome.ok()) {
        if (treeToken != 0) { // a process was made and is gone or going: the tree goes once it is empty
            tree_kill(treeToken);
            release_tree(treeToken);
        }
        ThrowException(env, outcome.exec.result, "Error creating new process.", outcome.exec.sysErr);
        return 0;
    }
    report_tree(env, launched, treeToken);
    for (UniqueFd& pipe : outcome.pipes)
        pipe.release(); // the caller's now
    return handle;
}

JNIEXPORT jstring JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_errorText(JNIEnv* env, jobject,
                                                                                       jint errnum) {
    const char* text = strerrordesc_np(errnum);
    char unknown[32];
    if (text == nullptr) {
        snprintf(unknown, sizeof unknown, "Unknown error %d", errnum);
        text = unknown;
    }
    return java_string_from_utf8(env, text);
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

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_watch(JNIEnv* env, jobject,
                                                                                jlong handle) {
    RecordRef record(handle);
    if (!record) return ThrowException(env, PROC_SYSTEM_ERR, "Error watching process. ", EINVAL);
    int sysErr = 0;
    int result = watch_record(handle, record.get(), &sysErr);
    if (result != PROC_SUCCESS) ThrowException(env, result, "Error watching process. ", sysErr);
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_awaitEvents(JNIEnv* env, jobject,
                                                                                      jlongArray tokens,
                                                                                      jintArray kinds,
                                                                                      jint timeoutMillis) {
    if (tokens == nullptr || kinds == nullptr) {
        throw_java(env, "java/lang/NullPointerException", "tokens or kinds");
        return 0;
    }
    constexpr int kMost = 256;
    int capacity = std::min({env->GetArrayLength(tokens), env->GetArrayLength(kinds), kMost});
    Event events[kMost];
    int count = await_events(events, capacity, timeoutMillis);
    jlong token[kMost];
    jint kind[kMost];
    for (int i = 0; i < count; ++i) {
        token[i] = events[i].token;
        kind[i] = events[i].kind;
    }
    env->SetLongArrayRegion(tokens, 0, count, token);
    env->SetIntArrayRegion(kinds, 0, count, kind);
    return count;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_wakeEvents(JNIEnv*, jobject) {
    wake_events();
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_capture(JNIEnv* env, jobject,
                                                                                   jint fd, jlong limit) {
    if (fd < 0 || limit < 0) {
        throw_java(env, "java/lang/IllegalArgumentException", "descriptor or limit");
        return 0;
    }
    jlong token = add_capture(fd, static_cast<size_t>(limit));
    if (token == 0) throw_java(env, "java/lang/OutOfMemoryError", "capture");
    return token;
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_deliver(JNIEnv* env, jobject,
                                                                                   jint fd) {
    if (fd < 0) {
        throw_java(env, "java/lang/IllegalArgumentException", "descriptor");
        return 0;
    }
    jlong token = add_delivery(fd);
    if (token == 0) throw_java(env, "java/lang/OutOfMemoryError", "delivery");
    return token;
}

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_feed(JNIEnv* env, jobject, jint fd,
                                                                                jbyteArray input) {
    if (fd < 0 || input == nullptr) {
        throw_java(env, "java/lang/IllegalArgumentException", "descriptor or input");
        return 0;
    }
    jsize size = env->GetArrayLength(input);
    MallocPtr<char> bytes(static_cast<char*>(malloc(size > 0 ? static_cast<size_t>(size) : 1)));
    jlong token = 0;
    if (bytes != nullptr) {
        env->GetByteArrayRegion(input, 0, size, reinterpret_cast<jbyte*>(bytes.get()));
        token = add_feed(fd, bytes.get(), static_cast<size_t>(size));
    } else {
        close(fd);
    }
    if (token == 0) throw_java(env, "java/lang/OutOfMemoryError", "feed");
    return token;
}

namespace {
// A Java array of bytes from malloc, which it frees; null with an exception pending when the JVM failed.
jbyteArray java_bytes(JNIEnv* env, char* data, size_t size) {
    MallocPtr<char> owned(data);
    jbyteArray array = env->NewByteArray(static_cast<jsize>(size));
    if (array != nullptr)
        env->SetByteArrayRegion(array, 0, static_cast<jsize>(size), reinterpret_cast<jbyte*>(data));
    return array;
}
} // namespace

JNIEXPORT jbyteArray JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_takeChunk(JNIEnv* env,
                                                                                          jobject,
                                                                                          jlong token) {
    char* data = nullptr;
    size_t size = 0;
    bool end = false;
    if (!take_chunk(token, &data, &size, &end)) return nullptr;
    jbyteArray array = env->NewByteArray(static_cast<jsize>(end ? 0 : size));
    if (array == nullptr) { // the heap is full: the chunk is offered again, nothing is lost
        return_chunk(token, data, size);
        return nullptr;
    }
    MallocPtr<char> owned(data);
    if (!end) env->SetByteArrayRegion(array, 0, static_cast<jsize>(size), reinterpret_cast<jbyte*>(data));
    return array;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_resume(JNIEnv*, jobject,
                                                                                 jlong token,
                                                                                 jboolean discard) {
    resume_delivery(token, discard == JNI_TRUE);
}

JNIEXPORT jbyteArray JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_takeCaptured(
    JNIEnv* env, jobject, jlong token, jlongArray dropped) {
    char* data = nullptr;
    size_t size = 0;
    uint64_t lost = 0;
    if (!take_capture(token, &data, &size, &lost)) return nullptr;
    if (dropped != nullptr && env->GetArrayLength(dropped) > 0) {
        jlong value = static_cast<jlong>(lost);
        env->SetLongArrayRegion(dropped, 0, 1, &value);
    }
    return java_bytes(env, data, size);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_cancel(JNIEnv*, jobject,
                                                                                 jlong token) {
    cancel_source(token);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_release(JNIEnv*, jobject,
                                                                                  jlong token) {
    release_source(token);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_pipe(JNIEnv* env, jobject,
                                                                               jintArray ends) {
    if (ends == nullptr || env->GetArrayLength(ends) < 2) {
        throw_java(env, "java/lang/IllegalArgumentException", "ends");
        return;
    }
    int pair[2];
    if (pipe2(pair, O_CLOEXEC) != 0) return throw_io(env, errno);
    jint kept[2] = {keep_above_standard(pair[0], true), keep_above_standard(pair[1], true)};
    env->SetIntArrayRegion(ends, 0, 2, kept);
}

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_killGroup(JNIEnv* env, jobject,
                                                                                        jint group) {
    if (group <= 1) {
        throw_java(env, "java/lang/IllegalArgumentException", "not a process group");
        return JNI_FALSE;
    }
    return kill_process_group(group) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_signal(JNIEnv* env, jobject,
                                                                                     jlong handle,
                                                                                     jint signal) {
    RecordRef record(handle);
    int sysErr = EINVAL;
    int result =
        record && signal > 0 && signal < NSIG ? ensure_entry(record.get(), &sysErr) : PROC_SYSTEM_ERR;
    if (result == PROC_SUCCESS) {
        sysErr = signal_process(entry_of(record.get()), record_pid(record.get()), signal);
        if (sysErr == ESRCH) return JNI_FALSE; // it has ended: nothing was sent
        if (sysErr != 0) result = sysErr == EPERM ? PROC_ACCESS_DENIED : PROC_SYSTEM_ERR;
    }
    if (result != PROC_SUCCESS) ThrowException(env, result, "Error signalling process. ", sysErr);
    return result == PROC_SUCCESS ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_killTree(JNIEnv* env, jobject, jlong handle) {
    RecordRef record(handle);
    if (!record) return ThrowException(env, PROC_SYSTEM_ERR, "Error terminating process. ", EINVAL);
    int sysErr = 0;
    int result = kill_tree(record.get(), &sysErr);
    if (result != PROC_SUCCESS) ThrowException(env, result, "Error terminating process. ", sysErr);
}

namespace {
int64_t checked_tree(JNIEnv* env, jlong token, const char* message) {
    if (tree_kind(token) == TreeKind::None) {
        ThrowException(env, PROC_SYSTEM_ERR, message, EINVAL);
        return 0;
    }
    return token;
}
} // namespace

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_treeKill(JNIEnv* env, jobject,
                                                                                   jlong token) {
    if (checked_tree(env, token, "Error terminating process tree. ") == 0) return;
    int err = tree_kill(token);
    if (err != 0)
        ThrowException(env, err == EPERM ? PROC_ACCESS_DENIED : PROC_SYSTEM_ERR,
                       "Error terminating process tree. ", err);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_treeSignal(JNIEnv* env, jobject,
                                                                                     jlong token,
                                                                                     jint signal) {
    if (checked_tree(env, token, "Error signalling process tree. ") == 0) return;
    if (signal <= 0 || signal >= NSIG)
        return ThrowException(env, PROC_SYSTEM_ERR, "Error signalling process tree. ", EINVAL);
    int err = tree_signal(token, signal);
    if (err != 0 && err != ETIMEDOUT)
        ThrowException(env, err == EPERM ? PROC_ACCESS_DENIED : PROC_SYSTEM_ERR,
                       "Error signalling process tree. ", err);
}

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_treeEmpty(JNIEnv* env, jobject,
                                                                                        jlong token,
                                                                                        jlongArray usage) {
    TreeUsage figures = {false, -1};
    bool empty = tree_empty(token, &figures);
    if (usage != nullptr && env->GetArrayLength(usage) >= 2) {
        jlong values[2] = {figures.peakBytes, figures.killedForMemory ? 1 : 0};
        env->SetLongArrayRegion(usage, 0, 2, values);
    }
    return empty ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_treeRelease(JNIEnv*, jobject,
                                                                                      jlong token) {
    release_tree(token);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_NativeProcessGlue_endOf(JNIEnv* env, jobject,
                                                                                jlong handle,
                                                                                jlongArray end) {
    RecordRef record(handle);
    if (!record || end == nullptr || env->GetArrayLength(end) < 4) {
        ThrowException(env, PROC_SYSTEM_ERR, "Error getting exitcode. ", EINVAL);
        return;
    }
    int sysErr = 0;
    int result = unix_GetProcessExitCode(record.get(), &sysErr);
    if (result != PROC_SUCCESS) return ThrowException(env, result, "Error getting exitcode. ", sysErr);
    await_no_waiters(record.get());
    ProcessEntry* entry = entry_of(record.get());
    rusage usage = {};
    bool known = entry != nullptr && entry_usage(entry, &usage);
    auto micros = [](const timeval& t) { return static_cast<jlong>(t.tv_sec) * 1000000 + t.tv_usec; };
    jlong values[4] = {load_field(record->exitCode), entry != nullptr ? entry_signal(entry) : 0,
                       known ? micros(usage.ru_utime) : -1, known ? micros(usage.ru_stime) : -1};
    env->SetLongArrayRegion(end, 0, 4, values);
}
