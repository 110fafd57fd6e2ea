#include "support/child.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {
std::string temp_file(const char* role) {
    char path[] = "/tmp/quillon-child-XXXXXX";
    int fd = mkstemp(path);
    close(fd);
    (void)role;
    return path;
}
} // namespace

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
    std::string reportPath = temp_file("report"), outPath = temp_file("out"), errPath = temp_file("err");
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
