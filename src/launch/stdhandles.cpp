// Descriptors 0, 1 and 2 of the new process: a redirection file, /dev/null for stdin, or inherited.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "quillon/boundary.h"
#include "quillon/launch.h"
#include "quillon/runtime.h"

namespace {
constexpr size_t kNameBuffer = 4098;
constexpr size_t kMaxName = 4096;
constexpr const char* kLabel = "SetupChildStdHandles()";
constexpr int kBaseFlags[3] = {O_RDONLY, O_RDWR | O_CREAT, O_RDWR | O_CREAT};

int retry_dup2(int from, int to) {
    int result;
    do {
        result = dup2(from, to);
    } while (result == -1 && errno == EINTR);
    return result;
}

void retry_close(int fd) {
    while (close(fd) == -1 && errno == EINTR) {
    }
}

int name_too_long(int* sysErr) {
    *sysErr = ENAMETOOLONG;
    process_err("Full filename failed, absolute path will exceed the maximum path size for the system.\n");
    return PROC_INVALID_FILE;
}

// A null stdin entry: stdin reads from /dev/null instead of staying inherited.
int stdin_from_dev_null(int* sysErr) {
    int fd = KeepAboveStandard(open("/dev/null", O_RDONLY), false);
    if (fd == -1) {
        process_log(
            "Failed to open /dev/null for stdin (since no redirect was specified).  The reported error "
            "(errno) was: [%d].  Closing stdin instead.\n",
            errno);
        retry_close(0);
        return PROC_SUCCESS;
    }
    process_log("Opened /dev/null as readonly for stdin redirect.  Attempting to assign it to stdin.\n");
    int result = retry_dup2(fd, 0);
    if (result == -1) {
        int err = errno;
        *sysErr = err;
        if (err == EMFILE || err == ENFILE) {
            process_err("Dup'ing /dev/null into stdin has failed. with EMFILE or ENFILE.\n");
            return PROC_OUT_OF_FILE_HANDLES;
        }
        process_err("Dup'ing /dev/null into stdin has failed.  The handle was invalid.\n");
        return PROC_INVALID_FILE;
    }
    if (result != 0) {
        *sysErr = EBADF;
        process_err("Dup'ing /dev/null into stdin has failed.  Returning system error of EBADF.\n");
        return PROC_INVALID_FILE;
    }
    process_log("Successfully assigned stdin to /dev/null.\n");
    if (fd != 0) retry_close(fd);
    return PROC_SUCCESS;
}

// The name to open: absolute or bare as given, or joined to the working directory. False when too long.
bool build_name(char (&buffer)[kNameBuffer], const char* name, const char* base) {
    if (name[0] == '/' || base == nullptr) {
        process_log("Absolute filename, or working directory was null, setting the file to: [%s]\n", name);
        if (strlen(name) > kMaxName) return false;
        strncpy(buffer, name, kMaxName);
        buffer[kMaxName] = 0;
        return true;
    }
    process_log("Relative filename, and we have a working directory.  Therefore, building absolute path\n");
    if (strlen(base) + strlen(name) + 1 > kMaxName) return false;
    strncpy(buffer, base, kMaxName);
    buffer[kMaxName] = 0;
    size_t freeSpace = kNameBuffer - strlen(buffer);
    process_log("Total space in filename buffer is: [%d].  Space remaining free is: [%d]\n",
                static_cast<int>(kNameBuffer), static_cast<int>(freeSpace));
    size_t baseLength = strlen(buffer);
    if (baseLength == 0 || buffer[baseLength - 1] != '/') {
        if (freeSpace == 0) return false;
        process_log("Appending UNIX directory separator '/' onto base directory [%s]\n", base);
        strncat(buffer, "/", freeSpace - 1);
        freeSpace = kNameBuffer - strlen(buffer);
        process_log("Total space in filename buffer is: [%d].  Space remaining free is: [%d]\n",
                    static_cast<int>(kNameBuffer), static_cast<int>(freeSpace));
    }
    strncat(buffer, name, freeSpace - 1);
    buffer[kNameBuffer - 1] = 0;
    process_log("Full filename generated succesfully.\n");
    return true;
}

int open_failure(int* sysErr, int err, const char* name, int descriptor) {
    *sysErr = err;
    process_err(
        "Failed to open: [%s] for use as standard descriptor: [%d].  The reported error (errno) was: [%d]. "
        "[%s]\n",
        name, descriptor, err, strerror(err));
    if (err == EACCES || err == ENOENT) return PROC_INVALID_FILE;
    if (err == EMFILE || err == ENFILE) return PROC_OUT_OF_FILE_HANDLES;
    return PROC_SYSTEM_ERR;
}

int redirect(int descriptor, const char* entry, const char* workingDirectory, int* sysErr) {
    int flags = kBaseFlags[descriptor];
    const char* name = entry;
    if (name[0] == '!') {
        flags |= O_TRUNC;
        ++name;
    } else {
        flags |= O_APPEND;
    }
    process_log("Marking the file to be opened with O_LARGEFILE if possible.\n");
    char buffer[kNameBuffer];
    if (!build_name(buffer, name, workingDirectory)) return name_too_long(sysErr);

    process_log("Trying to open file: [%s] for use as standard descriptor: [%d]\n", buffer, descriptor);
    int fd = open(buffer, flags, 0666);
    if (fd == -1) return open_failure(sysErr, errno, buffer, descriptor);
    if (fd != descriptor) fd = KeepAboveStandard(fd, false);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL));

    int result = retry_dup2(fd, descriptor);
    if (result == -1) {
        int err = errno;
        *sysErr = err;
        if (err == EMFILE || err == ENFILE) {
            process_err("Could not dup the file handle, out of file handles. errno=[%d]\n", err);
            return PROC_OUT_OF_FILE_HANDLES;
        }
        process_err("Could not dup the file handle. errno=[%d]\n", err);
        return PROC_INVALID_FILE;
    }
    if (result != descriptor) {
        close(result);
        *sysErr = EBADF;
        process_err("dup returned a different file handle than expected. expected=[%d] actual=[%d]\n",
                    descriptor, result);
        return PROC_INVALID_FILE;
    }
    // The descriptor from open stays open here; the descriptor sweep before exec closes it.
    return PROC_SUCCESS;
}
} // namespace

int SetupChildStdHandles(const char* workingDirectory, char** stdFiles, int* sysErr) {
    process_log_entry(kLabel);
    int result = PROC_SUCCESS;
    for (int i = 0; stdFiles != nullptr && i < 3 && result == PROC_SUCCESS; ++i) {
        if (stdFiles[i] != nullptr)
            result = redirect(i, stdFiles[i], workingDirectory, sysErr);
        else if (i == 0)
            result = stdin_from_dev_null(sysErr);
    }
    if (result == PROC_SUCCESS) *sysErr = 0;
    process_log_exit(kLabel);
    return result;
}
