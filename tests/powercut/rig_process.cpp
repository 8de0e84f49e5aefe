#include "rig_process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace powercut {

std::string ChildResult::describe() const
{
    return exited ? "exit status " + std::to_string(exit_code) : "signal " + std::to_string(signal);
}

void LineWriter::line(const std::string& text) const
{
    std::string whole = text + "\n";
    size_t done = 0;
    while (done < whole.size()) {
        ssize_t n = write(fd_, whole.data() + done, whole.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += size_t(n);
    }
}

// Reads everything the child writes until it closes its end.
static std::vector<std::string> read_lines(int fd)
{
    std::string all;
    char buffer[65536];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        all.append(buffer, size_t(n));
    }
    std::vector<std::string> lines;
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

ChildResult run_child(const std::function<void(const LineWriter&)>& body, bool keep_stdout)
{
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("pipe failed");
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        close(ends[0]);
        if (!keep_stdout) {
            int null_fd = open("/dev/null", O_WRONLY);
            dup2(null_fd, 1);
            close(null_fd);
        }
        body(LineWriter(ends[1]));
        fflush(stdout);
        _exit(0);
    }
    close(ends[1]);
    ChildResult result;
    result.lines = read_lines(ends[0]);
    close(ends[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exited = WIFEXITED(status);
    result.exit_code = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}

ScratchDir::ScratchDir(const std::string& base)
{
    std::string pattern = base + "/qzfs-powercut-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        throw std::runtime_error("cannot make a directory in " + base);
    dir_ = buf.data();
}

static int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

// QZFS_POWERCUT_KEEP set keeps the images, to look at a failure with the tool.
ScratchDir::~ScratchDir()
{
    if (getenv("QZFS_POWERCUT_KEEP") != nullptr) {
        fprintf(stderr, "images kept in %s\n", dir_.c_str());
        return;
    }
    nftw(dir_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

// Copies the `length` bytes at `at` from one descriptor to the other.
static bool copy_range(int in, int out, off_t at, off_t length)
{
    static char buffer[1 << 20];
    while (length > 0) {
        const size_t want = size_t(length < off_t(sizeof(buffer)) ? length : off_t(sizeof(buffer)));
        const ssize_t got = pread(in, buffer, want, at);
        if (got <= 0 || pwrite(out, buffer, size_t(got), at) != got)
            return false;
        at += got;
        length -= got;
    }
    return true;
}

bool copy_sparse(const std::string& from, const std::string& to, std::string& error)
{
    const int in = open(from.c_str(), O_RDONLY);
    const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    struct stat st;
    bool ok = in >= 0 && out >= 0 && fstat(in, &st) == 0 && ftruncate(out, st.st_size) == 0;
    for (off_t at = 0; ok;) {
        const off_t data = lseek(in, at, SEEK_DATA);
        if (data < 0)
            break;  // no data after `at`
        const off_t hole = lseek(in, data, SEEK_HOLE);
        ok = hole > data && copy_range(in, out, data, hole - data);
        at = hole;
    }
    if (!ok)
        error = "cannot copy " + from + " to " + to + ": " + strerror(errno);
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
    return ok;
}

std::vector<std::string> words(const std::string& line)
{
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string word; in >> word;)
        out.push_back(word);
    return out;
}

} // namespace powercut
