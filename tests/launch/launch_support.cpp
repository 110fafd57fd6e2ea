#include "launch/launch_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
    std::filesystem::directory_iterator fds("/proc/self/fd");
    return static_cast<int>(std::distance(fds, std::filesystem::directory_iterator())) - 1; // its own
}

std::vector<Mount> mounts() {
    std::vector<Mount> found;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point, field;
        fields >> id >> parent >> device >> root >> point;
        while (fields >> field && field != "-") {
        }
        std::string type;
        fields >> type;
        found.push_back({root, point, type});
    }
    return found;
}

std::string own_v2_path() {
    std::ifstream in("/proc/self/cgroup");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("0::", 0) == 0) return line.substr(3);
    return "";
}

std::string TestGroup::create() {
    std::string own = own_v2_path();
    if (own.empty()) return "this process is in no cgroup v2 group";
    for (const Mount& m : mounts()) {
        if (m.type != "cgroup2") continue;
        std::string relative;
        if (m.root == "/")
            relative = own;
        else if (own.rfind(m.root, 0) == 0)
            relative = own.substr(m.root.size());
        else
            continue; // a mount of another part of the hierarchy
        std::string name = "quillon-clone-" + std::to_string(getpid());
        std::string base = own == "/" ? "" : own;
        dir_ = m.point + (relative == "/" ? "" : relative) + "/" + name;
        path_ = base + "/" + name;
        if (mkdir(dir_.c_str(), 0755) != 0) {
            std::string why = "can't make a group at " + dir_ + ": " + strerror(errno);
            dir_.clear();
            return why;
        }
        fd_ = open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        return fd_ >= 0 ? "" : "can't open " + dir_ + ": " + strerror(errno);
    }
    return "no cgroup2 mount shows this process's group";
}

TestGroup::~TestGroup() {
    if (fd_ >= 0) close(fd_);
    if (dir_.empty()) return;
    for (int round = 0; round < 500; ++round) {
        std::vector<pid_t> members = processes();
        if (members.empty()) break;
        for (pid_t pid : members) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, WNOHANG);
        }
        usleep(10000);
    }
    if (rmdir(dir_.c_str()) != 0) ADD_FAILURE() << "test group " << dir_ << " stays: " << strerror(errno);
}

std::vector<pid_t> TestGroup::processes() const {
    std::vector<pid_t> pids;
    std::ifstream in(dir_ + "/cgroup.procs");
    for (pid_t pid; in >> pid;)
        pids.push_back(pid);
    return pids;
}
