// Natives of ThreadUtil: native mutexes held by Java handles, and which threading model the process
// runs on.
#include <cerrno>
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>

#include "com_norvane_quillon_process_linuxutil_ThreadUtil.h"
#include "quillon/boundary.h"
#include "runtime/support.h"
#include "supervision/id_table.h"

namespace {
int posix_threading = -1; // -1 not determined yet, 1 threads share a process id, 0 they don't
pthread_mutex_t threading_check_mutex = PTHREAD_MUTEX_INITIALIZER;

// Mutexes by handle: a number that names one mutex for the life of the process, so that a stale or
// made-up handle finds none instead of memory that is no mutex. (Freeing a mutex while another thread
// uses it stays the caller's to avoid.)
HandleRegistry live_mutexes;

pthread_mutex_t* mutex_of(jlong handle) {
    return live_mutexes.locked(
        [handle](IdTable& table) { return static_cast<pthread_mutex_t*>(table.find(static_cast<uint64_t>(handle))); });
}

// A lock or an unlock of a live mutex; nothing for any other handle.
void change_mutex(jlong handle, bool lock) {
    pthread_mutex_t* mutex = mutex_of(handle);
    if (mutex == nullptr) return;
    if (lock) {
        process_log("Doing a lock on mutex: [0x%x]\n", trace_ptr(mutex));
        pthread_mutex_lock(mutex);
    } else {
        process_log("Doing an unlock on mutex: [0x%x]\n", trace_ptr(mutex));
        pthread_mutex_unlock(mutex);
    }
}

void* store_thread_pid(void* pid) {
    *static_cast<int*>(pid) = getpid();
    return nullptr;
}

bool report_model(bool shared) {
    process_log(shared ? "NPTL or similar detected.\n" : "LinuxThreads or similar detected.\n");
    return shared;
}
} // namespace

JNIEXPORT jlong JNICALL Java_com_norvane_quillon_process_linuxutil_ThreadUtil_createMutex(JNIEnv* env, jobject) {
    MallocPtr<pthread_mutex_t> mutex(static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t))));
    if (mutex == nullptr) {
        ThrowException(env, PROC_OUT_OF_MEMORY, "Unrecoverable error.  Could not allocate memory for a new pthreads mutex",
                       0);
        return 0;
    }
    process_log("Trying to init the mutex: [0x%x]\n", trace_ptr(mutex.get()));
    int result = pthread_mutex_init(mutex.get(), nullptr);
    if (result != 0) {
        process_err("Could not initialize the new pthreads mutex. error=[%d] errno=[%d]\n", result, errno);
        ThrowException(env, PROC_SYSTEM_ERR, "Unrecoverable error.  Could not initialize the new pthreads mutex", result);
        return 0;
    }
    auto handle = static_cast<jlong>(live_mutexes.add(mutex.get()));
    if (handle == 0) {
        pthread_mutex_destroy(mutex.get());
        ThrowException(env, PROC_OUT_OF_MEMORY, "Unrecoverable error.  Could not allocate memory for a new pthreads mutex",
                       0);
        return 0;
    }
    mutex.release();
    return handle;
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_linuxutil_ThreadUtil_mutexTrylock(JNIEnv*, jobject,
                                                                                          jlong handle) {
    if (handle == 0) return 0;
    pthread_mutex_t* mutex = mutex_of(handle);
    if (mutex == nullptr) return -1;
    process_log("Doing a trylock on mutex: [0x%x]\n", trace_ptr(mutex));
    return pthread_mutex_trylock(mutex) == 0 ? 0 : -1;
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_linuxutil_ThreadUtil_mutexLock(JNIEnv*, jobject,
                                                                                       jlong handle) {
    change_mutex(handle, true);
}

JNIEXPORT void JNICALL Java_com_norvane_quillon_process_linuxutil_ThreadUtil_mutexUnlock(JNIEnv*, jobject,
                                                                                         jlong handle) {
    change_mutex(handle, false);
}

JNIEXPORT jint JNICALL Java_com_norvane_quillon_process_linuxutil_ThreadUtil_freeMutex(JNIEnv*, jobject,
                                                                                       jlong handle) {
    if (handle == 0) return 0;
    pthread_mutex_t* mutex = mutex_of(handle);
    if (mutex == nullptr) return 1; // no mutex of ours: nothing was freed
    process_log("Doing a destroy on mutex: [0x%x]\n", trace_ptr(mutex));
    if (pthread_mutex_destroy(mutex) != 0) {
        process_log("Could not destroy mutex: [0x%x]\n", trace_ptr(mutex));
        return 1;
    }
    live_mutexes.locked([handle](IdTable& table) { return table.erase(static_cast<uint64_t>(handle)); });
    process_log("Doing a free on mutex data: [0x%x]\n", trace_ptr(mutex));
    free(mutex);
    return 0;
}

JNIEXPORT jboolean JNICALL Java_com_norvane_quillon_process_linuxutil_ThreadUtil_isPOSIXThreading(JNIEnv*,
                                                                                                  jobject) {
    process_log_init_dbg();
    process_log("Trying to determine if the threading mode is NPTL.\n");
    int mainPid = getpid();
    pthread_mutex_lock(&threading_check_mutex);
    bool shared;
    if (posix_threading == -1) {
        int childPid = 0;
        pthread_t probe;
        int created = pthread_create(&probe, nullptr, store_thread_pid, &childPid);
        if (created == 0) pthread_join(probe, nullptr);
        process_log("Thread created? ( 0 == created): [%d].  Main pid: [%d].  Child pid: [%d]\n", created, mainPid,
                    childPid);
        shared = report_model(created == 0 && mainPid == childPid);
        posix_threading = shared ? 1 : 0;
    } else {
        shared = report_model(posix_threading == 1);
    }
    pthread_mutex_unlock(&threading_check_mutex);
    return shared ? JNI_TRUE : JNI_FALSE;
}
