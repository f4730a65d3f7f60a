#include "tests/fakes/server_log_record.h"

#include "identity/server_log.h"

#include <mutex>
#include <stdarg.h>
#include <stdio.h>

static std::mutex lines_lock;
static std::vector<std::string> lines;

std::vector<std::string> server_log_lines()
{
    std::lock_guard<std::mutex> held(lines_lock);
    return lines;
}

void server_log_clear()
{
    std::lock_guard<std::mutex> held(lines_lock);
    lines.clear();
}

void server_log_open()
{
}

void server_log(const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::lock_guard<std::mutex> held(lines_lock);
    lines.push_back(text);
}

int32_t server_log_path(char *dst, int32_t size)
{
    return snprintf(dst, size > 0 ? (size_t)size : 0, "(in memory)");
}
