// Fakes: net_memory clock_script random_script
// Native libraries: sodium
// Options: -max_len=512 -len_control=0
// Seeds: 30 120
//
// The viewer's side of the handshake against any host. See handshake_side.h.
#include "fuzz/handshake_side.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    std::string password = side_start(&in, false, 64);
    static secure_channel channel;
    bool succeeded = handshake_as_viewer(&channel, NET_MEMORY_SOCKET, password.c_str());
    side_check(&channel, succeeded, password, true);
    return 0;
}
