#include "bench_support.h"

#include "qzfilesystem_api.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

FILE* report = stdout;
const char* bench_name = "bench";
std::string image_in_use;

void die(const char* what, const std::string& detail)
{
    fprintf(stderr, "%s: %s%s%s\n", bench_name, what, detail.empty() ? "" : ": ", detail.c_str());
    if (!image_in_use.empty())
        unlink(image_in_use.c_str());
    exit(1);
}

double cpu_seconds()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

std::string default_image_dir()
{
    const char* tmp = getenv("TMPDIR");
    return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
}

void make_sparse(const std::string& path, unsigned long long size)
{
    image_in_use = path;
    unlink(path.c_str());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    if (fd < 0 || ftruncate(fd, off_t(size)) != 0)
        die("cannot make the image", path + ": " + strerror(errno));
    close(fd);
}

std::vector<unsigned> parse_list(const char* text, unsigned most)
{
    std::vector<unsigned> out;
    const char* p = text;
    while (*p != '\0') {
        char* end = nullptr;
        unsigned long v = strtoul(p, &end, 10);
        if (end == p || v == 0 || v > most) {
            const std::string what = "bad --channels list (1 to " + std::to_string(most) + " each)";
            die(what.c_str(), text);
        }
        out.push_back(unsigned(v));
        if (*end != ',' && *end != '\0')
            die("bad --channels list", text);
        p = *end == ',' ? end + 1 : end;
    }
    return out;
}

void start_library(bool verbose)
{
    int table_fd = dup(1);
    report = table_fd < 0 ? nullptr : fdopen(table_fd, "w");
    if (report == nullptr)
        die("cannot duplicate standard output");
    setvbuf(report, nullptr, _IOLBF, 0);
    if (!verbose) {
        fflush(stdout);
        int null = open("/dev/null", O_WRONLY);
        if (null < 0 || dup2(null, 1) < 0)
            die("cannot silence standard output");
        close(null);
    }
    if (api_qzfs_init() != 0)
        die("api_qzfs_init failed");
    api_qzfs_set_debug_level(0);
}
