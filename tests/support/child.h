// Runs a piece of a test in a forked child and brings back what it reports as text, so that code that
// changes process-wide state (trace switches, identity, descriptors) never touches the test runner.
#pragma once

#include <functional>
#include <string>

struct ChildOutcome {
    std::string report; // what the body returned
    std::string out;    // what the child wrote to stdout
    std::string err;    // what the child wrote to stderr
    int status = 0;     // waitpid status word
};

// The body runs with stdout and stderr captured; a child that takes longer than `seconds` is killed.
ChildOutcome RunInChild(const std::function<std::string()>& body, unsigned seconds = 20);

// Reads a whole file; empty when it can't be read.
std::string ReadFile(const std::string& path);
// The value of a "Key:\t..." line of /proc/<pid>/status (pid 0: self).
std::string StatusField(const std::string& key, int pid = 0);
