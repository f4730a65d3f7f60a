#include "tests/fakes/random_script.h"

#include "protocol/random.h"

random_script_state random_script;

bool random_bytes(uint8_t *data, size_t n)
{
    random_script_state *s = &random_script;
    if (s->draws < RANDOM_SCRIPT_DRAWS)
        s->draw_sizes[s->draws] = n;
    s->draws++;
    if (s->on_draw != nullptr) {
        void (*call)() = s->on_draw;
        s->on_draw = nullptr;
        call();
    }
    if (s->fails)
        return false;
    for (size_t i = 0; i < n; i++)
        data[i] = s->bytes[s->used++ % RANDOM_SCRIPT_SIZE];
    return true;
}
