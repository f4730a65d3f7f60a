// The secure random generator that the system prefers.
//
// A generator that failed once, or has no library, is out of use until the process ends. The
// host makes its password without looking at the result and relies on the handshake, which
// does look, to let nobody in: so it must not work again for the handshake.
#include "protocol/random.h"

#include "protocol/system_library.h"
#include "protocol/win32.h"

#include <bcrypt.h>

#include <atomic>

static std::atomic<bool> failed; // any thread; set and never cleared

bool random_bytes(uint8_t *data, size_t n)
{
    static const auto generate =
        (decltype(&BCryptGenRandom))system_library_function(L"bcrypt.dll", "BCryptGenRandom");
    if (!generate || failed || n > 0xFFFFFFFF)
        return false;
    if (generate(nullptr, data, (ULONG)n, BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0)
        failed = true;
    return !failed;
}
