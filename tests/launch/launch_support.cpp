#include "launch/launch_support.h"

#include <cstdlib>
#include <dirent.h>

#include "supervision/supervision_internal.h"

namespace {
std::vector<char*> vector_of(std::vector<std::string>& texts) {
    std::vector<char*> v;
    for (auto& t : texts)
        v.push_back(t.data());
    v.push_back(nullptr);
    return v;
}
} // namespace

Launched Launch(const Request& request, bool detached) {
    Request r = request;
    std::vector<char*> arguments = vector_of(r.arguments);
    std::vector<char*> environment = vector_of(r.environment);
    std::vector<char*> files;
    for (const char* file : r.stdFiles)
        files.push_back(const_cast<char*>(file));
    UnixProcessData* data = new_record();
    copy_bounded(data->pid, "0", sizeof data->pid);
    data->isAlive = 1;
    auto launch = detached ? unix_CreateDetachedProcess : unix_CreateProcess;
    Launched out;
    out.result = launch(r.executable.c_str(), arguments.data(), r.environment.empty() ? nullptr : environment.data(),
                        r.workingDirectory, r.priority, files.empty() ? nullptr : files.data(), r.fileMask, r.group,
                        r.user, r.processGroup, data, &out.sysErr);
    out.pid = atoi(data->pid);
    destroy_record(data);
    return out;
}

int SetUpStdHandles(const char* workingDirectory, std::vector<const char*> stdFiles, int* sysErr) {
    LaunchRequest request;
    request.workingDirectory = workingDirectory;
    for (size_t i = 0; i < stdFiles.size(); ++i)
        request.std[i] = {kStdNamed, stdFiles[i]};
    int result = plan_std_handles(&request, sysErr);
    if (result != PROC_SUCCESS) return result;
    ExecOutcome outcome = SetupChildStdHandles(request, host_context());
    *sysErr = outcome.sysErr;
    return outcome.result;
}

int OpenDescriptorCount() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr)
        ++count;
    closedir(dir);
    return count - 3; // ".", ".." and the directory's own descriptor
}
