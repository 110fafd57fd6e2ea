// The trace of the new process. It writes whole lines straight to descriptors 1 and 2: the streams of
// the C library belong to the launcher, whose memory the new process shares until its exec.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "launch/launch_internal.h"
#include "launch/raw_syscall.h"
#include "runtime/runtime_internal.h"

namespace {
NEW_PROCESS_CODE void write_all(int fd, const char* text, size_t size) {
    while (size > 0) {
        long written = sys_write(fd, text, size);
        if (written == -EINTR) continue;
        if (written <= 0) return;
        text += written;
        size -= static_cast<size_t>(written);
    }
}

void write_line(const ChildContext& context, bool error, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
NEW_PROCESS_CODE void write_line(const ChildContext& context, bool error, const char* format, va_list args) {
    char line[kTraceLineSize];
    format_trace_line(line, context.tracePid, format, args);
    if (context.inHost) {
        fputs(line, stdout);
        if (error) fputs(line, stderr);
        fflush(stdout);
        if (error) fflush(stderr);
        return;
    }
    size_t length = strlen(line);
    write_all(1, line, length);
    if (error) write_all(2, line, length);
}
} // namespace

ChildContext host_context() {
    ChildContext context;
    context.tracePid = trace_pid();
    context.debug = process_log_is_dbg_enabled() != 0;
    context.entryExit = process_log_is_entryexit_enabled() != 0;
    context.inHost = true;
    return context;
}

NEW_PROCESS_CODE void child_log(const ChildContext& context, const char* format, ...) {
    if (!context.debug || format == nullptr) return;
    va_list args;
    va_start(args, format);
    write_line(context, false, format, args);
    va_end(args);
}

NEW_PROCESS_CODE void child_err(const ChildContext& context, const char* format, ...) {
    if (context.silent || format == nullptr) return;
    va_list args;
    va_start(args, format);
    write_line(context, true, format, args);
    va_end(args);
}

NEW_PROCESS_CODE ChildTraceScope::ChildTraceScope(const ChildContext& context, const char* label)
    : context_(context), label_(label) {
    if (context_.entryExit) child_log(context_, "> entering: [%s]\n", label_);
}

NEW_PROCESS_CODE ChildTraceScope::~ChildTraceScope() {
    if (label_ != nullptr && context_.entryExit) child_log(context_, "< exiting: [%s]\n", label_);
}
