// A set of virtual-key codes. Owned and used by the window thread.
#include "viewer/key_state.h"

#include <bit>

namespace viewer
{

void key_state_note(key_state *keys, uint16_t virtual_key, bool press)
{
    uint64_t bit = (uint64_t)1 << virtual_key % 64;
    if (press)
        keys->down[virtual_key / 64] |= bit;
    else
        keys->down[virtual_key / 64] &= ~bit;
}

bool key_state_take(key_state *keys, uint16_t *virtual_key)
{
    for (uint32_t word = 0; word < KEY_STATE_WORDS; word++) {
        if (keys->down[word] == 0)
            continue;
        *virtual_key = (uint16_t)(word * 64 + (uint32_t)std::countr_zero(keys->down[word]));
        key_state_note(keys, *virtual_key, false);
        return true;
    }
    return false;
}

} // namespace viewer
