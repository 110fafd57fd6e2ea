// Launch requests for native tests: a record and an attached or detached launch, the standard descriptors of
// a new process set up in the calling one, and cgroup v2 groups to launch into.
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

// One line of /proc/self/mountinfo: the root of the mount within its hierarchy, where it is mounted, its
// type.
struct Mount {
    std::string root, point, type;
};
std::vector<Mount> mounts();
// This process's v2 group as /proc/self/cgroup names it ("0::/path"); empty without one.
std::string own_v2_path();

// A group made for one test below this process's own v2 group. When it goes, whatever runs in it is killed
// and reaped, and the directory removed.
class TestGroup {
  public:
    // Empty when the group is there, else why it could not be made.
    std::string create();
    ~TestGroup();
    int fd() const { return fd_; }
    const std::string& dir() const { return dir_; }
    // As /proc/<pid>/cgroup names it.
    const std::string& path() const { return path_; }
    std::vector<pid_t> processes() const;

  private:
    std::string dir_, path_;
    int fd_ = -1;
};
