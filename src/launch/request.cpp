// A launch request: made from whatever form the caller has, and resolved in the launching thread into
// everything the new process needs.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "launch/launch_internal.h"
#include "runtime/runtime_internal.h"

namespace {
bool trace_variable_set() {
    return getenv("__JNI_PROCESS_DEBUG") != nullptr || getenv("$$TRACE") != nullptr;
}

// /bin/sh, a slot for the program's path, then the program's arguments: what a program that the
// kernel can't run is handed to, as execvp does.
char** script_arguments(char** cmdLine, Arena& arena) {
    size_t count = 0;
    while (cmdLine[count] != nullptr)
        ++count;
    char** script = arena.allocate_array<char*>(count + 2);
    if (script == nullptr) return nullptr;
    script[0] = const_cast<char*>("/bin/sh");
    script[1] = nullptr;
    memcpy(script + 2, cmdLine + 1, count * sizeof(char*));
    return script;
}

int out_of_memory(int* sysErr) {
    *sysErr = ENOMEM;
    return PROC_OUT_OF_MEMORY;
}
} // namespace

LaunchRequest::~LaunchRequest() {
    if (cmdLine != nullptr) FreeCmdLine(cmdLine);
}

char** GenerateCmdLine(char** arguments, const char* executable) {
    TraceScope trace("GenerateCmdLine()");
    process_log("Checking command line arg array being passed in.  Pointer value is: [0x%x]\n",
                trace_ptr(arguments));
    size_t count = 0;
    while (arguments != nullptr && arguments[count] != nullptr)
        ++count;
    size_t length = strlen(executable);
    auto** cmdLine = static_cast<char**>(malloc((count + 2) * sizeof(char*)));
    if (cmdLine != nullptr && (cmdLine[0] = static_cast<char*>(malloc(length + 1))) == nullptr) {
        free(cmdLine);
        cmdLine = nullptr;
    }
    if (cmdLine == nullptr) {
        process_err("Unable to initialize commandline arguments, ENOMEM\n");
        return nullptr;
    }
    memcpy(cmdLine[0], executable, length + 1);
    std::copy_n(arguments, count, cmdLine + 1); // arguments may be null when there are none
    cmdLine[count + 1] = nullptr;
    return cmdLine;
}

void FreeCmdLine(char** cmdLine) {
    TraceScope trace("FreeCmdLine()");
    if (cmdLine == nullptr) return;
    free(cmdLine[0]);
    free(cmdLine);
}

void request_from_arguments(LaunchRequest* request, const char* executable, char** arguments,
                            char** environment, const char* workingDirectory, int64_t priority,
                            char** stdFiles, int64_t fileMask, const char* groupName, const char* userName,
                            int processGroup) {
    request->executable = executable;
    request->arguments = arguments;
    request->environment = environment;
    request->workingDirectory = workingDirectory;
    // A priority is nice + 20; what nice can't express is clamped to it, without overflow.
    request->nice = static_cast<int>(std::clamp<int64_t>(priority, 0, 39) - 20);
    for (int i = 0; stdFiles != nullptr && i < 3; ++i)
        request->std[i] = {kStdNamed, stdFiles[i]};
    request->fileMask = static_cast<mode_t>(fileMask);
    request->groupName = groupName;
    request->userName = userName;
    request->processGroup = processGroup;
}

int resolve_request(LaunchRequest* request, int* sysErr) {
    request->cmdLine = GenerateCmdLine(request->arguments, request->executable);
    if (request->cmdLine == nullptr) return out_of_memory(sysErr);
    request->scriptArgv = script_arguments(request->cmdLine, request->arena);
    if (request->scriptArgv == nullptr || !build_environment(request)) return out_of_memory(sysErr);
    if (request->nice) request->nice = std::clamp(*request->nice, -20, 19);
    if (!resolve_privilege(&request->privilege, request->userName, request->groupName, request->arena))
        return out_of_memory(sysErr);
    int result = plan_std_handles(request, sysErr);
    if (result != PROC_SUCCESS) return result;

    ChildContext& context = request->context;
    context.tracePid = trace_pid();
    context.silent = request->silent;
    context.debug = !context.silent && process_log_is_dbg_enabled() != 0;
    context.entryExit = !context.silent && process_log_is_entryexit_enabled() != 0;
    // The new process reads the host's trace variables again, and a switch only ever turns on.
    context.debugAfterReset = !context.silent && (context.debug || trace_variable_set());
    context.entryExitAfterReset =
        !context.silent && (context.entryExit || getenv("__JNI_PROCESS_ENTRYEXIT") != nullptr);
    request->openMax = static_cast<int>(sysconf(_SC_OPEN_MAX));
    return PROC_SUCCESS;
}
