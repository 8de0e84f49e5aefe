// The two log forms of the library. Every log line goes to standard output.
//
//   logic layer: "[file][line][function][time:sec, usec]message"
//   low layer:   "[function,line][TIME sec.usec]:message"
//
// Logic-layer lines carry a level test on g_qzfs_debug_level; low-layer lines
// (device I/O, locks, partitions, FAT32) always print.
#ifndef QZFS_LOG_H
#define QZFS_LOG_H

#include <cstdint>

extern "C" uint32_t g_qzfs_debug_level;

void qzfs_log_logic(const char* file, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void qzfs_log_low(const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Text behind the last '/', or the whole path when there is none or it ends in one.
const char* Qzfs_basename(const char* path);

// Logic-layer line printed at every level, also at 0.
#define QZLOG(...) qzfs_log_logic(__FILE__, __LINE__, __func__, __VA_ARGS__)

// Logic-layer line in the name of another function: for routines shared by
// several members that each log under their own name.
#define QZLOG_AS(func, ...) qzfs_log_logic(__FILE__, __LINE__, func, __VA_ARGS__)

// Logic-layer line printed only when the debug level is above `level`:
// QZLOG_ABOVE(0, ...) is "at any non-zero level", QZLOG_ABOVE(2, ...) "above 2".
#define QZLOG_ABOVE(level, ...)                       \
    do {                                              \
        if (g_qzfs_debug_level > (uint32_t)(level))   \
            QZLOG(__VA_ARGS__);                       \
    } while (0)

// Low-layer line, always printed.
#define QZDEVLOG(...) qzfs_log_low(__func__, __LINE__, __VA_ARGS__)

// Exhausted memory: report where and end the process with status 1.
#define QZFS_FATAL(...)                                                        \
    qzfs_fatal(Qzfs_basename(__FILE__), __func__, __LINE__, __VA_ARGS__)
[[noreturn]] void qzfs_fatal(const char* file, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#endif
