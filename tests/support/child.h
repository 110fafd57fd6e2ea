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

// RunInChild with the child a subreaper: once the body has returned, every process it left below it (orphans
// included) is killed and reaped.
ChildOutcome RunAsSubreaper(const std::function<std::string()>& body, unsigned seconds = 20);
// Whether the process ends (exits, or is a zombie) within `millis`; one already reaped has ended.
bool EndsWithin(int pid, int millis);
// The state letter of /proc/<pid>/stat ('S' asleep, 'Z' zombie), or 0 when the process is gone.
char ProcessState(int pid);
// Whether this process has no child left, reaped or not.
bool NoChildrenLeft();
// A child of this process's threads asleep now (as in the open of a FIFO nobody writes); 0 when none is.
int SleepingChild();
// The "0::..." line of a /proc/<pid>/cgroup text; "" without one.
std::string V2Line(const std::string& cgroups);
// A child that ends with `status` once `*release`, its pipe's write end, is closed (or written); its PID.
int ChildEndingOnRelease(int status, int* release);
// The bytes malloc has handed out and not had back: a step that frees all it takes leaves it as it was.
size_t HeapInUse();

// A directory of its own under /tmp, removed with what it holds when it goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// A FIFO nobody writes, in a directory of its own: a new process that takes it as stdin hangs before its
// exec until a writer opens it.
class Fifo : public TempDir {
  public:
    Fifo();
    ~Fifo();
    const std::string& fifo() const { return fifo_; } // empty when it couldn't be made
    bool open_writer() const;                         // lets go of a reader: whether one was there

  private:
    std::string fifo_;
};
