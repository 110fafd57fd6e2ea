// Launch requests for native tests: build a record and run an attached or detached launch.
#pragma once

#include <string>
#include <vector>

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
// Descriptors open in this process now.
int OpenDescriptorCount();
