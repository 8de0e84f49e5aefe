#include "qzfs_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/time.h>

const char* Qzfs_basename(const char* path)
{
    if (path == nullptr)
        return "";
    const char* slash = strrchr(path, '/');
    if (slash == nullptr || slash[1] == '\0')
        return path;
    return slash + 1;
}

// One line is formatted whole and written with a single call so that lines
// of concurrent threads do not interleave.
static void emit_line(const char* prefix, const char* fmt, va_list ap)
{
    char message[2048];
    vsnprintf(message, sizeof(message), fmt, ap);
    flockfile(stdout);
    fputs(prefix, stdout);
    fputs(message, stdout);
    fputc('\n', stdout);
    funlockfile(stdout);
    fflush(stdout);
}

void qzfs_log_logic(const char* file, int line, const char* func, const char* fmt, ...)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    char prefix[512];
    snprintf(prefix, sizeof(prefix), "[%s][%08d][%s][time:%ld, %06ld]", Qzfs_basename(file),
             line, func, (long)now.tv_sec, (long)now.tv_usec);
    va_list ap;
    va_start(ap, fmt);
    emit_line(prefix, fmt, ap);
    va_end(ap);
}

void qzfs_log_low(const char* func, int line, const char* fmt, ...)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    char prefix[256];
    snprintf(prefix, sizeof(prefix), "[%s,%d][TIME %ld.%06ld]:", func, line, (long)now.tv_sec,
             (long)now.tv_usec);
    va_list ap;
    va_start(ap, fmt);
    emit_line(prefix, fmt, ap);
    va_end(ap);
}

void qzfs_fatal(const char* file, const char* func, int line, const char* fmt, ...)
{
    printf("FATAL:(FILE:[%s]);(FUNC:[%s]);(LINE:[%d])\n", file, func, line);
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    printf("\n");
    fflush(stdout);
    exit(1);
}
