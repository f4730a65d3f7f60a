// The system's secure random generator, for native tests.
#include "protocol/random.h"

#include <errno.h>
#include <sys/random.h>

bool random_bytes(uint8_t *data, size_t n)
{
    while (n > 0) {
        ssize_t got = getrandom(data, n, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        data += got;
        n -= (size_t)got;
    }
    return true;
}
