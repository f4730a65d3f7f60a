// The secure random generator that the system prefers.
#include "protocol/random.h"

#include "protocol/win32.h"

#include <bcrypt.h>

bool random_bytes(uint8_t *data, size_t n)
{
    if (n > 0xFFFFFFFF)
        return false;
    return BCryptGenRandom(nullptr, data, (ULONG)n, BCRYPT_USE_SYSTEM_PREFERRED_RNG) == 0;
}
