// The list of the visible top-level windows, sent whenever it changes.
//
// Owner: host server thread; only the frame pipeline calls.
#ifndef QV_HOST_WINDOW_LIST_H
#define QV_HOST_WINDOW_LIST_H

#include "protocol/messages.h"

#include <stddef.h>
#include <stdint.h>

namespace host
{

constexpr size_t WINDOW_LIST_MAX = 16384;    // bytes of all records
constexpr size_t WINDOW_TITLE_MAX = 199;     // bytes of a title that are sent
constexpr uint32_t FNV1A_EMPTY = 0x811C9DC5; // the hash of nothing

// FNV-1a, 32 bits.
uint32_t fnv1a(const uint8_t *bytes, size_t length);

// A new viewer gets a list in any case.
void window_list_reset();

// Lists the windows, if the host is to, and appends MSG_WINDOW_LIST when the list changed.
void window_list_step();

// Appends a window to the list under way; one without a title is passed over. False when it
// does not fit: the list ends there.
[[nodiscard]] bool window_list_append(const window_head &window, const char *title);

// The edge: calls window_list_append for each visible window, topmost first, until it says
// false.
void window_list_enumerate();

} // namespace host

#endif
