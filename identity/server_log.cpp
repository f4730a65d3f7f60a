// The host's log file.
//
// One stream for the life of the process, absent until it is opened and never closed: the
// process end closes it, and every line has been flushed by then. Any thread may log. The
// stream pointer is atomic because the window's thread may log while the server thread
// opens; the text, the newline and the flush are three calls under the stream's own lock,
// so two threads' lines may interleave but nothing worse can happen.
#include "identity/server_log.h"

#include "identity/data_dir.h"

#include <atomic>
#include <stdarg.h>
#include <stdio.h>

static std::atomic<FILE *> log_stream;

void server_log_open()
{
    char path[SERVER_LOG_PATH_SIZE];
    server_log_path(path, sizeof path);
    if (log_stream.load() != nullptr)
        return;
    log_stream.store(fopen(path, "w"));
}

void server_log(const char *format, ...)
{
    FILE *stream = log_stream.load();
    if (stream == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stream, format, arguments);
    va_end(arguments);
    fputc('\n', stream);
    fflush(stream);
}

int32_t server_log_path(char *dst, int32_t size)
{
    char directory[DATA_DIR_SIZE];
    data_dir_make(directory);
    return snprintf(dst, size > 0 ? (size_t)size : 0, "%s\\qv_server.log", directory);
}
