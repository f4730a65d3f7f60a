// The host's log: one line an event in qv_server.log, no time stamp, flushed at once.
//
// Any thread may log. There is no lock: lines of two threads may interleave, as the
// stream's own lock allows.
#ifndef QV_IDENTITY_SERVER_LOG_H
#define QV_IDENTITY_SERVER_LOG_H

#include <stddef.h>
#include <stdint.h>

#if defined(__clang__)
#define QV_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define QV_PRINTF(text, first) __attribute__((format(gnu_printf, text, first)))
#endif

constexpr size_t SERVER_LOG_PATH_SIZE = 292;

// Opens the log, emptied, in the data directory. Lines before that are lost, as are all
// lines when the file cannot be opened. A second call changes nothing.
void server_log_open();

// Writes one line. The format has no trailing newline.
void server_log(const char *format, ...) QV_PRINTF(1, 2);

// Formats the log's path into dst; returns what the formatter does.
int32_t server_log_path(char *dst, int32_t size);

#endif
