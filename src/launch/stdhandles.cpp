// Descriptors 0, 1 and 2 of the new process: a file, /dev/null, a pipe, or the launcher's own. The
// launching thread works out names and pipes; the new process opens, duplicates and traces.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "launch/launch_internal.h"
#include "launch/raw_syscall.h"

namespace {
constexpr int kNameBuffer = 4098;
constexpr size_t kMaxName = 4096;
constexpr int kNamedFlags[3] = {O_RDONLY, O_RDWR | O_CREAT, O_RDWR | O_CREAT};

// ---- In the launching thread ----

// The name `open` gets: as given when absolute or without a working directory, else joined to it. The
// trace of the join is replayed by the new process.
bool plan_file(StdPlan* plan, const char* name, int flags, const char* base, Arena& arena) {
    plan->kind = StdPlan::Kind::File;
    plan->name = name;
    plan->flags = flags;
    plan->relative = name[0] != '/' && base != nullptr;
    if (!plan->relative) {
        plan->tooLong = strlen(name) > kMaxName;
        return plan->tooLong || (plan->path = arena.copy(name)) != nullptr;
    }
    size_t baseLength = strlen(base);
    plan->tooLong = baseLength + strlen(name) + 1 > kMaxName;
    if (plan->tooLong) return true;
    plan->freeSpace[0] = kNameBuffer - static_cast<int>(baseLength);
    plan->slashAppended = baseLength == 0 || base[baseLength - 1] != '/';
    plan->freeSpace[1] = plan->freeSpace[0] - (plan->slashAppended ? 1 : 0);
    plan->path = static_cast<char*>(arena.allocate(kNameBuffer));
    if (plan->path == nullptr) return false;
    char* end = stpcpy(plan->path, base);
    if (plan->slashAppended) end = stpcpy(end, "/");
    strcpy(end, name);
    return true;
}

// A pipe for descriptor i: the new process reads stdin's end and writes the others'.
int plan_pipe(LaunchRequest* request, int i, int* sysErr) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        *sysErr = errno;
        return result_for_errno(*sysErr, {}, PROC_SYSTEM_ERR);
    }
    int childEnd = keep_above_standard(ends[i == 0 ? 0 : 1], true);
    int hostEnd = keep_above_standard(ends[i == 0 ? 1 : 0], true);
    request->childPipeEnds[i].reset(childEnd);
    request->hostPipeEnds[i].reset(hostEnd);
    request->plans[i].kind = StdPlan::Kind::Pipe;
    request->plans[i].pipeEnd = childEnd;
    return PROC_SUCCESS;
}

// ---- In the new process ----

NEW_PROCESS_CODE int name_too_long(const ChildContext& context, int* sysErr) {
    *sysErr = ENAMETOOLONG;
    child_err(context,
              "Full filename failed, absolute path will exceed the maximum path size for the system.\n");
    return PROC_INVALID_FILE;
}

NEW_PROCESS_CODE void trace_name(const ChildContext& context, const StdPlan& plan, const char* base) {
    if (!plan.relative) {
        child_log(context, "Absolute filename, or working directory was null, setting the file to: [%s]\n",
                  plan.name);
        return;
    }
    child_log(context, "Relative filename, and we have a working directory.  Therefore, building absolute "
                       "path\n");
    if (plan.tooLong) return;
    child_log(context, "Total space in filename buffer is: [%d].  Space remaining free is: [%d]\n", kNameBuffer,
              plan.freeSpace[0]);
    if (plan.slashAppended) {
        child_log(context, "Appending UNIX directory separator '/' onto base directory [%s]\n", base);
        child_log(context, "Total space in filename buffer is: [%d].  Space remaining free is: [%d]\n",
                  kNameBuffer, plan.freeSpace[1]);
    }
    child_log(context, "Full filename generated succesfully.\n");
}

// Moves a descriptor that landed on 0, 1 or 2 (a host running with one closed) out of their way.
NEW_PROCESS_CODE int above_standard(int fd) {
    if (fd > 2) return fd;
    long moved = sys_fcntl(fd, F_DUPFD, 3);
    if (moved < 0) return fd;
    sys_close(fd);
    return static_cast<int>(moved);
}

NEW_PROCESS_CODE long dup_onto(int from, int to) {
    long result;
    do {
        result = sys_dup2(from, to);
    } while (result == -EINTR);
    return result;
}

NEW_PROCESS_CODE void close_standard(int fd) {
    while (sys_close(fd) == -EINTR) {
    }
}

// dup2 of a descriptor onto `descriptor`, with the failures of a redirection.
NEW_PROCESS_CODE int duplicate_onto(const ChildContext& context, int from, int descriptor, int* sysErr) {
    long result = dup_onto(from, descriptor);
    if (result < 0) {
        *sysErr = static_cast<int>(-result);
        if (*sysErr == EMFILE || *sysErr == ENFILE) {
            child_err(context, "Could not dup the file handle, out of file handles. errno=[%d]\n", *sysErr);
            return PROC_OUT_OF_FILE_HANDLES;
        }
        child_err(context, "Could not dup the file handle. errno=[%d]\n", *sysErr);
        return PROC_INVALID_FILE;
    }
    if (result != descriptor) {
        sys_close(static_cast<int>(result));
        *sysErr = EBADF;
        child_err(context, "dup returned a different file handle than expected. expected=[%d] actual=[%d]\n",
                  descriptor, static_cast<int>(result));
        return PROC_INVALID_FILE;
    }
    return PROC_SUCCESS;
}

// stdin's null entry: /dev/null instead of the launcher's stdin, or no stdin when that can't be opened.
NEW_PROCESS_CODE int stdin_from_dev_null(const ChildContext& context, int* sysErr) {
    long opened = sys_open("/dev/null", O_RDONLY, 0);
    if (opened < 0) {
        child_log(context,
                  "Failed to open /dev/null for stdin (since no redirect was specified).  The reported error "
                  "(errno) was: [%d].  Closing stdin instead.\n",
                  static_cast<int>(-opened));
        close_standard(0);
        return PROC_SUCCESS;
    }
    int fd = above_standard(static_cast<int>(opened));
    child_log(context, "Opened /dev/null as readonly for stdin redirect.  Attempting to assign it to stdin.\n");
    long result = dup_onto(fd, 0);
    if (result < 0) {
        *sysErr = static_cast<int>(-result);
        if (*sysErr == EMFILE || *sysErr == ENFILE) {
            child_err(context, "Dup'ing /dev/null into stdin has failed. with EMFILE or ENFILE.\n");
            return PROC_OUT_OF_FILE_HANDLES;
        }
        child_err(context, "Dup'ing /dev/null into stdin has failed.  The handle was invalid.\n");
        return PROC_INVALID_FILE;
    }
    if (result != 0) {
        *sysErr = EBADF;
        child_err(context, "Dup'ing /dev/null into stdin has failed.  Returning system error of EBADF.\n");
        return PROC_INVALID_FILE;
    }
    child_log(context, "Successfully assigned stdin to /dev/null.\n");
    if (fd != 0) close_standard(fd);
    return PROC_SUCCESS;
}

NEW_PROCESS_CODE int redirect_to_file(const ChildContext& context, const StdPlan& plan, int descriptor, const char* base,
                     int* sysErr) {
    child_log(context, "Marking the file to be opened with O_LARGEFILE if possible.\n");
    trace_name(context, plan, base);
    if (plan.tooLong) return name_too_long(context, sysErr);
    child_log(context, "Trying to open file: [%s] for use as standard descriptor: [%d]\n", plan.path,
              descriptor);
    long opened = sys_open(plan.path, plan.flags, 0666);
    if (opened < 0) {
        int err = static_cast<int>(-opened);
        *sysErr = err;
        char text[64];
        child_err(context,
                  "Failed to open: [%s] for use as standard descriptor: [%d].  The reported error (errno) was: "
                  "[%d]. [%s]\n",
                  plan.path, descriptor, err, error_text(err, text));
        return result_for_errno(err, {EACCES, ENOENT}, PROC_INVALID_FILE);
    }
    int fd = static_cast<int>(opened);
    if (fd != descriptor) fd = above_standard(fd);
    sys_fcntl(fd, F_SETFL, sys_fcntl(fd, F_GETFL, 0));
    // The descriptor from open stays open here; the descriptor sweep before exec closes it.
    return duplicate_onto(context, fd, descriptor, sysErr);
}
} // namespace

int plan_std_handles(LaunchRequest* request, int* sysErr) {
    const char* base = request->workingDirectory;
    for (int i = 0; i < 3; ++i) {
        const StdRequest& asked = request->std[i];
        StdPlan* plan = &request->plans[i];
        bool planned = true;
        switch (asked.mode) {
        case kStdInherit:
            break;
        case kStdNull:
            if (i == 0)
                plan->kind = StdPlan::Kind::DevNullStdin;
            else
                planned = plan_file(plan, "/dev/null", O_WRONLY, nullptr, request->arena);
            break;
        case kStdNamed:
            if (asked.path == nullptr) {
                if (i == 0) plan->kind = StdPlan::Kind::DevNullStdin;
            } else if (asked.path[0] == '!') {
                planned = plan_file(plan, asked.path + 1, kNamedFlags[i] | O_TRUNC, base, request->arena);
            } else {
                planned = plan_file(plan, asked.path, kNamedFlags[i] | O_APPEND, base, request->arena);
            }
            break;
        case kStdRead:
            planned = plan_file(plan, asked.path, O_RDONLY, base, request->arena);
            break;
        case kStdWrite:
            planned = plan_file(plan, asked.path, O_WRONLY | O_CREAT | O_TRUNC, base, request->arena);
            break;
        case kStdAppend:
            planned = plan_file(plan, asked.path, O_WRONLY | O_CREAT | O_APPEND, base, request->arena);
            break;
        case kStdPipe: {
            int result = plan_pipe(request, i, sysErr);
            if (result != PROC_SUCCESS) return result;
            break;
        }
        case kStdAsStdout:
            plan->kind = StdPlan::Kind::AsStdout;
            break;
        case kStdDescriptor:
            plan->kind = StdPlan::Kind::Descriptor;
            plan->pipeEnd = asked.fd;
            break;
        }
        if (!planned) {
            *sysErr = ENOMEM;
            return PROC_OUT_OF_MEMORY;
        }
    }
    return PROC_SUCCESS;
}

NEW_PROCESS_CODE ExecOutcome SetupChildStdHandles(const LaunchRequest& request, const ChildContext& context) {
    ChildTraceScope trace(context, "SetupChildStdHandles()");
    for (int i = 0; i < 3; ++i) {
        const StdPlan& plan = request.plans[i];
        int sysErr = 0;
        int result = PROC_SUCCESS;
        switch (plan.kind) {
        case StdPlan::Kind::Inherit:
            break;
        case StdPlan::Kind::DevNullStdin:
            result = stdin_from_dev_null(context, &sysErr);
            break;
        case StdPlan::Kind::File:
            result = redirect_to_file(context, plan, i, request.workingDirectory, &sysErr);
            break;
        case StdPlan::Kind::Pipe:
        case StdPlan::Kind::Descriptor:
            result = duplicate_onto(context, plan.pipeEnd, i, &sysErr);
            break;
        case StdPlan::Kind::AsStdout:
            result = duplicate_onto(context, 1, i, &sysErr);
            break;
        }
        if (result != PROC_SUCCESS) return {result, sysErr, kStepStdHandle, i};
    }
    return {};
}
