// Where the relay is. Written once, at the start, and only read afterwards: no lock.
//
// A file that is no host name is left alone without a word: the programs say which relay they
// use wherever they use it.
#include "identity/relay_host.h"

#include "identity/data_dir.h"
#include "protocol/bytes.h"

#include <stdio.h>
#include <string.h>

// Room for a name with generous blanks around it; a longer file is no name.
constexpr size_t RELAY_FILE_MAX = 1024;

static char relay_host[RELAY_HOST_SIZE] = QV_RELAY_HOST;

static bool is_surrounding(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool relay_host_parse(const char *text, size_t size, char host[RELAY_HOST_SIZE])
{
    while (size > 0 && is_surrounding(text[size - 1]))
        size--;
    while (size > 0 && is_surrounding(text[0])) {
        text++;
        size--;
    }
    if (size == 0 || size >= RELAY_HOST_SIZE)
        return false;
    for (size_t i = 0; i < size; i++) {
        const unsigned char c = (unsigned char)text[i];
        if (c <= ' ' || c == 0x7F || c == ':')
            return false;
    }
    memcpy(host, text, size);
    host[size] = 0;
    return true;
}

void relay_host_load()
{
    char path[DATA_FILE_SIZE];
    data_dir_relay_path(path);
    FILE *file = fopen(path, "rb");
    if (file == nullptr)
        return;
    char text[RELAY_FILE_MAX + 1];
    const size_t size = fread(text, 1, sizeof text, file);
    const bool is_whole = size <= RELAY_FILE_MAX && ferror(file) == 0;
    fclose(file);
    char host[RELAY_HOST_SIZE];
    if (is_whole && relay_host_parse(text, size, host))
        copy_text(relay_host, sizeof relay_host, host);
}

const char *relay_host_get()
{
    return relay_host;
}
