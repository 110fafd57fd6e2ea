// Launch requests for native tests: a record and an attached or detached launch, and the standard
// descriptors of a new process set up in the calling one.
#pragma once

#include <string>
#include <vector>

#include "launch/launch_internal.h"
#include "quillon/launch.h"

struct Request {
    std::string executable = "/bin/true";
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    const char* workingDirectory = nullptr;
    int64_t priority = 20;
    std::vector<const char*> stdFiles; // empty: null array
    int64_t fileMask = 022;
    const char* group = nullptr;
    const char* user = nullptr;
    int processGroup = 0;
};

struct Launched {
    int result = 0;
    int sysErr = 0;
    int pid = 0;
};

Launched Launch(const Request& request, bool detached = false);
// The redirections of `create` set up in this process, as the new process does: a result code.
int SetUpStdHandles(const char* workingDirectory, std::vector<const char*> stdFiles, int* sysErr);
// Descriptors open in this process now.
int OpenDescriptorCount();
