// Library entry, result code -> Java exception, system error texts, handle conversion.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "quillon/boundary.h"
#include "quillon/runtime.h"
#include "runtime/support.h"

// The XSI form of strerror_r: glibc exposes it under this name when _GNU_SOURCE selects the GNU one.
extern "C" int __xpg_strerror_r(int errnum, char* buffer, size_t size);

namespace {
constexpr size_t kText = 1024;
constexpr const char* kGeneralFailure = "com/norvane/quillon/process/exception/ProcessOpException";

const char* const kExceptionClasses[] = {
    kGeneralFailure,
    "com/norvane/quillon/process/exception/InvalidPriorityException",
    "com/norvane/quillon/process/exception/InvalidGroupException",
    "com/norvane/quillon/process/exception/InvalidUsernameException",
    "com/norvane/quillon/process/exception/InvalidDirectoryException",
    "com/norvane/quillon/process/exception/InvalidProcessGroupException",
    "com/norvane/quillon/process/exception/InvalidFileException",
    "com/norvane/quillon/process/exception/ProcessHasExitedException",
    "com/norvane/quillon/process/exception/ProcessStillActiveException",
    "com/norvane/quillon/process/exception/WaitForSelfTerminationException",
    kGeneralFailure,
    "com/norvane/quillon/process/exception/InvalidExecutableException",
    "com/norvane/quillon/process/exception/OutOfFileHandlesException",
    "com/norvane/quillon/process/exception/OutOfMemoryException",
    "com/norvane/quillon/process/exception/AccessDeniedException",
    "com/norvane/quillon/process/exception/NotSupportedException",
    "com/norvane/quillon/process/exception/CreateProcessTimeoutException",
};

const char* exception_class(int code) {
    unsigned index = static_cast<unsigned>(code);
    return index < sizeof kExceptionClasses / sizeof *kExceptionClasses ? kExceptionClasses[index]
                                                                        : kGeneralFailure;
}

// "message NNN: text", or "message NNN", or the message alone, whichever fits first. The number has at
// least three digits. The first test allows 5 characters for the six the format adds, so a text that
// passes it with nothing to spare loses its last character to the buffer's end (hence the pragma).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
void compose_message(char (&out)[kText], const char* message, int sysErr, const char* sysText) {
    size_t messageLength = strlen(message);
    if (sysErr != 0 && strlen(sysText) + messageLength + 5 <= kText - 1) {
        snprintf(out, kText, "%.1023s %.3d: %.1023s", message, sysErr, sysText);
    } else if (sysErr != 0 && messageLength + 4 <= kText - 1) {
        snprintf(out, kText, "%.1023s %.3d", message, sysErr);
    } else {
        copy_bounded(out, message, kText);
    }
}
#pragma GCC diagnostic pop
} // namespace

QUILLON_API jint JNI_OnLoad(JavaVM*, void*) {
    process_log_init_dbg();
    return JNI_VERSION_1_2;
}

QUILLON_API void ThrowException(JNIEnv* env, int code, const char* message, int sysErr) {
    char nativeSysText[kText] = {};
    char messageCopy[kText] = {};
    char className[kText] = {};
    char utf8SysText[kText] = {};
    char finalMessage[kText] = {};

    const char* chosenClass = exception_class(code);
    if (message != nullptr) copy_bounded(messageCopy, message, kText);
    if (sysErr != 0 && process_strerror_r(sysErr, nativeSysText, kText) != 0) nativeSysText[0] = 0;
    if (nativeSysText[0] != 0) utf8_or_as_is(utf8SysText, nativeSysText, kText);
    compose_message(finalMessage, messageCopy, sysErr, utf8SysText);

    copy_bounded(className, chosenClass, kText);
    jclass cls = env->FindClass(className);
    if (cls == nullptr) {
        copy_bounded(className, "java/lang/Exception", kText);
        cls = env->FindClass(className);
        if (cls == nullptr) return;
    }
    env->ThrowNew(cls, finalMessage);
}

QUILLON_API int process_strerror_r(int errnum, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        errno = ERANGE;
        return -1;
    }
    int failure = __xpg_strerror_r(errnum, buffer, size);
    if (failure == ERANGE || (failure == 0 && strnlen(buffer, size) >= size)) {
        errno = ERANGE;
        return -1;
    }
    if (failure != 0) {
        errno = failure;
        return -1;
    }
    buffer[size - 1] = 0;
    return 0;
}

QUILLON_API jlong process_ConvertPointerTo64(void* pointer) {
    return reinterpret_cast<jlong>(pointer);
}

QUILLON_API void* process_ConvertJlongToPointer(jlong handle) {
    return reinterpret_cast<void*>(handle);
}
