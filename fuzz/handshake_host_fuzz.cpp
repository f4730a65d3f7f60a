// Fakes: net_memory clock_script random_script
// Native libraries: sodium
// Options: -max_len=512 -len_control=0
// Seeds: 30 120
//
// The host's side of the handshake against any viewer. See handshake_side.h.
#include "fuzz/handshake_side.h"

static std::string password;

static void read_password(char copy[PASSWORD_MAX + 1])
{
    memset(copy, 0, PASSWORD_MAX + 1);
    memcpy(copy, password.data(), password.size());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    password = side_start(&in, true, PASSWORD_MAX);
    uint8_t limit = take_u8(&in);
    // Most have all the time; some have none left.
    net_deadline deadline = {.set = limit % 2 == 1, .at_ms = clock_script_now + limit / 2};
    bool in_time = !deadline.set || limit / 2 > 0;

    static secure_channel channel;
    bool succeeded = handshake_as_host(&channel, NET_MEMORY_SOCKET, read_password, deadline);
    side_check(&channel, succeeded, password, in_time);
    return 0;
}
