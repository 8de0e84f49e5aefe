// What the benchmarks share: their report stream (standard output carries
// the library's log), failing with a message, CPU time, where images go, a
// sparse image, a --channels list, and starting the library quietly.
#ifndef QZFS_BENCH_SUPPORT_H
#define QZFS_BENCH_SUPPORT_H

#include <cstdio>
#include <string>
#include <vector>

// Where the benchmark prints its figures.
extern FILE* report;
// Name in error messages, e.g. "bench/record".
extern const char* bench_name;
// An image to remove when the benchmark gives up; empty for none.
extern std::string image_in_use;

[[noreturn]] void die(const char* what, const std::string& detail = "");
// User and system CPU seconds of the process so far.
double cpu_seconds();
// Where images go without --dir: $TMPDIR, else /tmp.
std::string default_image_dir();
// Makes `path` a fresh sparse file of `size` bytes (and the image in use).
void make_sparse(const std::string& path, unsigned long long size);
// "1,4,16": each from 1 to `most`.
std::vector<unsigned> parse_list(const char* text, unsigned most);
// Sends the figures to a copy of standard output, silences standard output
// (the library's log) unless `verbose`, and starts the library at debug
// level 0.
void start_library(bool verbose);

#endif
