#include "support/child.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <malloc.h>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {
std::string temp_file() {
    char path[] = "/tmp/quillon-child-XXXXXX";
    close(mkstemp(path));
    return path;
}

// The children of this process's threads.
std::vector<int> children() {
    std::vector<int> found;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream listed(task.path() / "children");
        for (int pid; listed >> pid;)
            found.push_back(pid);
    }
    return found;
}
} // namespace

ChildOutcome RunAsSubreaper(const std::function<std::string()>& body, unsigned seconds) {
    return RunInChild(
        [&] {
            prctl(PR_SET_CHILD_SUBREAPER, 1);
            std::string report = body();
            while (!NoChildrenLeft()) { // a killed child's orphans come to this process in turn
                for (int pid : children())
                    kill(pid, SIGKILL);
                while (waitpid(-1, nullptr, WNOHANG | __WALL) > 0) {
                }
                usleep(1000);
            }
            return report;
        },
        seconds);
}

bool EndsWithin(int pid, int millis) {
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) return errno == ESRCH;
    pollfd ended = {pidfd, POLLIN, 0};
    bool ends = poll(&ended, 1, millis) == 1;
    close(pidfd);
    return ends;
}

char ProcessState(int pid) {
    std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : 0;
}

bool NoChildrenLeft() {
    errno = 0;
    return waitpid(-1, nullptr, WNOHANG | __WALL) == -1 && errno == ECHILD;
}

int SleepingChild() {
    for (int pid : children())
        if (ProcessState(pid) == 'S') return pid;
    return 0;
}

std::string V2Line(const std::string& cgroups) {
    std::istringstream lines(cgroups);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("0::")) return line;
    return "";
}

TempDir::TempDir() {
    char dir[] = "/tmp/quillon-test-XXXXXX";
    if (mkdtemp(dir) != nullptr) path_ = dir;
}

TempDir::~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

Fifo::Fifo() {
    if (!path().empty() && mkfifo((path() + "/fifo").c_str(), 0600) == 0) fifo_ = path() + "/fifo";
}

Fifo::~Fifo() {
    open_writer(); // lets go of a reader a failed case left
}

bool Fifo::open_writer() const {
    int writer = open(fifo_.c_str(), O_WRONLY | O_NONBLOCK);
    return writer >= 0 && close(writer) == 0;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string StatusField(const std::string& key, int pid) {
    std::ifstream in(pid == 0 ? std::string("/proc/self/status")
                              : "/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key + ":", 0) == 0) {
            std::string value = line.substr(key.size() + 1);
            value.erase(0, value.find_first_not_of(" \t"));
            value.erase(value.find_last_not_of(" \t") + 1);
            return value;
        }
    return "";
}

ChildOutcome RunInChild(const std::function<std::string()>& body, unsigned seconds) {
    std::string reportPath = temp_file(), outPath = temp_file(), errPath = temp_file();
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        alarm(seconds);
        freopen(outPath.c_str(), "w", stdout);
        freopen(errPath.c_str(), "w", stderr);
        std::ofstream report(reportPath); // opened first: the body may give up the right to open it
        report << body();
        report.close();
        fflush(stdout);
        fflush(stderr);
        _exit(0);
    }
    ChildOutcome outcome;
    waitpid(pid, &outcome.status, 0);
    outcome.report = ReadFile(reportPath);
    outcome.out = ReadFile(outPath);
    outcome.err = ReadFile(errPath);
    unlink(reportPath.c_str());
    unlink(outPath.c_str());
    unlink(errPath.c_str());
    return outcome;
}

size_t HeapInUse() {
    return mallinfo2().uordblks;
}

int ChildEndingOnRelease(int status, int* release) {
    int go[2];
    if (pipe(go) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        char byte;
        close(go[1]);
        (void)!read(go[0], &byte, 1);
        _exit(status);
    }
    close(go[0]);
    *release = go[1];
    return pid;
}
