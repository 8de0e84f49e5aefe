// Processes of the power-cut rig: every mount happens in a forked child, so
// that a cut process ends without touching the rig, and the rig itself
// never holds a disk. A child answers through a pipe, one line a fact.
#ifndef QZFS_POWERCUT_RIG_PROCESS_H
#define QZFS_POWERCUT_RIG_PROCESS_H

#include <functional>
#include <string>
#include <vector>

namespace powercut {

// How a child ended and the lines it wrote to its pipe.
struct ChildResult {
    bool exited = false;  // false: killed by a signal
    int exit_code = -1;
    int signal = 0;
    std::vector<std::string> lines;
    std::string describe() const;  // "exit status 3", "signal 11"
};

// The pipe end a child writes its lines to.
class LineWriter {
public:
    explicit LineWriter(int fd) : fd_(fd) {}
    // Writes one line (a newline is added); each line goes out at once, so
    // a child cut afterwards has already told it.
    void line(const std::string& text) const;

private:
    int fd_;
};

// Runs `body` in a forked child, with the library's log (stdout) thrown
// away unless `keep_stdout`. A child that returns from `body` exits with
// status 0.
ChildResult run_child(const std::function<void(const LineWriter&)>& body, bool keep_stdout);

// A temporary directory, removed with its files at destruction.
class ScratchDir {
public:
    explicit ScratchDir(const std::string& base);
    ~ScratchDir();
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

// Copies an image, holes left as holes (SEEK_DATA / SEEK_HOLE); false with
// `error` on a failure.
bool copy_sparse(const std::string& from, const std::string& to, std::string& error);

// The words of a line: "beyond 2 17" gives "beyond", "2", "17".
std::vector<std::string> words(const std::string& line);

} // namespace powercut

#endif
