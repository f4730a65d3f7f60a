// Which keys the host believes to be down: presses sent and not yet released. Pure.
//
// A window that loses the focus never sees the keys come up (Alt+Tab is the daily case), so
// it sends the missing releases itself.
#ifndef QV_VIEWER_KEY_STATE_H
#define QV_VIEWER_KEY_STATE_H

#include <stdint.h>

namespace viewer
{

constexpr uint32_t KEY_STATE_WORDS = 65536 / 64;

// One bit for each 16-bit virtual-key code. Zeroed = none is down.
struct key_state {
    uint64_t down[KEY_STATE_WORDS];
};

// Notes a key message that goes to the host; the keyboard repeats presses.
void key_state_note(key_state *keys, uint16_t virtual_key, bool press);

// Takes out one key that is down, the lowest code first; false when none is left.
bool key_state_take(key_state *keys, uint16_t *virtual_key);

} // namespace viewer

#endif
