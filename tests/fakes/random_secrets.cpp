#include "tests/fakes/random_secrets.h"

#include "protocol/random.h"

#include <assert.h>
#include <mutex>
#include <string.h>

static std::mutex guard; // of script
static struct {
    uint8_t bytes[256];
    size_t used, taken;
} script;

void random_secrets_give(const uint8_t *data, size_t n)
{
    std::lock_guard<std::mutex> hold(guard);
    assert(n <= sizeof script.bytes - script.used);
    memcpy(script.bytes + script.used, data, n);
    script.used += n;
}

void random_secrets_reset()
{
    std::lock_guard<std::mutex> hold(guard);
    script = {};
}

bool random_bytes(uint8_t *data, size_t n)
{
    std::lock_guard<std::mutex> hold(guard);
    if (n > script.used - script.taken)
        return false;
    memcpy(data, script.bytes + script.taken, n);
    script.taken += n;
    return true;
}
