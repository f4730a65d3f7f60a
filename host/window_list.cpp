// The window list: collected in every iteration, sent when its hash is another one.
//
// A list that is too long ends with the last window that fits; what is left out stands below
// all others. An empty list is sent too: its hash differs from the zero that a session
// starts with, so that every viewer has a list after its first frame.
#include "host/window_list.h"

#include "host/out_buffer.h"
#include "identity/host_identity.h"
#include "protocol/bytes.h"

#include <string.h>

namespace host
{

// Host server thread only.
static struct {
    uint32_t window_list_hash; // of the list last sent; 0: none was
    uint16_t count;
    size_t used; // of records
    uint8_t records[WINDOW_LIST_MAX];
} list;

uint32_t fnv1a(const uint8_t *bytes, size_t length)
{
    uint32_t hash = FNV1A_EMPTY;
    for (size_t i = 0; i < length; i++)
        hash = (hash ^ bytes[i]) * 16777619;
    return hash;
}

void window_list_reset()
{
    list.window_list_hash = 0;
}

bool window_list_append(const window_head &window, const char *title)
{
    size_t length = strnlen(title, WINDOW_TITLE_MAX);
    if (length == 0)
        return true;
    if (list.used + WINDOW_HEAD_BYTES + length > WINDOW_LIST_MAX)
        return false;
    uint8_t *record = list.records + list.used;
    put_window_head(record, window, (uint8_t)length);
    memcpy(record + WINDOW_HEAD_BYTES, title, length);
    list.used += WINDOW_HEAD_BYTES + length;
    list.count++;
    return true;
}

void window_list_step()
{
    if (host_get_window_list_enabled() == 0)
        return;
    list.count = 0;
    list.used = 0;
    window_list_enumerate();

    uint32_t hash = fnv1a(list.records, list.used);
    if (hash == list.window_list_hash)
        return;
    uint8_t count[WINDOW_LIST_HEAD_BYTES];
    store_le16(count, list.count);
    out_append_header(MSG_WINDOW_LIST, (uint32_t)(sizeof count + list.used));
    out_append(count, sizeof count);
    out_append(list.records, list.used);
    list.window_list_hash = hash;
}

} // namespace host
