// Fakes: net_memory clock_script server_log_record
// Options: -max_len=256
//
// The relay hello of either side, and the host's way to a relay. A hello that is taken apart
// gives back what went in, cut and padded as its layout says.
#include "fuzz/fuzz.h"
#include "host/relay_register.h"
#include "protocol/relay_hello.h"
#include "tests/fakes/net_memory.h"
#include "tests/fakes/server_log_record.h"

#include <string>

static void check_field(const uint8_t *field, size_t size, const std::vector<uint8_t> &text)
{
    for (size_t i = 0; i < size; i++)
        FUZZ_CHECK(field[i] == (i < text.size() ? text[i] : 0));
}

static void check_hello(const uint8_t hello[RELAY_HELLO_BYTES], char role,
                        const std::vector<uint8_t> &room, const std::vector<uint8_t> &name)
{
    FUZZ_CHECK(memcmp(hello, "QVRL\x02", 5) == 0);
    FUZZ_CHECK(hello[5] == (uint8_t)role);
    check_field(hello + 6, 18, room);
    check_field(hello + 24, 32, name);
}

static exact_bytes *terminated(std::vector<uint8_t> text)
{
    text.push_back(0);
    return new exact_bytes(text);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    uint8_t kind = take_u8(&in);
    std::vector<uint8_t> room = take_text(&in, 64);
    std::vector<uint8_t> name = take_text(&in, 40);
    exact_bytes *room_text = terminated(room);
    exact_bytes *name_text = terminated(name);

    exact_bytes name_field(NAME_BYTES);
    copy_padded(name_field.data, NAME_BYTES, (const char *)name_text->data);
    exact_bytes hello(RELAY_HELLO_BYTES);
    char role = kind % 2 ? RELAY_ROLE_HOST : RELAY_ROLE_VIEWER;
    relay_hello_build(hello.data, role, (const char *)room_text->data,
                      (const char *)name_field.data);
    check_hello(hello.data, role, room, name);

    net_memory_reset();
    server_log_clear();
    if (kind & 2)
        net_memory.connections = 0;
    if (kind & 4)
        net_memory.send_limit = take_below(&in, RELAY_HELLO_BYTES);
    net_socket sock = host::relay_register("relay", (const char *)room_text->data,
                                           (const char *)name_text->data);
    FUZZ_CHECK((sock == NET_MEMORY_SOCKET) == !(kind & 6));
    if (sock == NET_MEMORY_SOCKET) {
        FUZZ_CHECK(net_memory.sent.size() == RELAY_HELLO_BYTES);
        check_hello(net_memory.sent.data(), RELAY_ROLE_HOST, room, name);
        FUZZ_CHECK(net_memory.closed == 0);
        std::string line = "relay: connected to relay:7000, room '" +
                           std::string(room.begin(), room.end()) + "', waiting for a viewer";
        FUZZ_CHECK(server_log_lines().size() == 1 && server_log_lines()[0] == line);
    } else {
        FUZZ_CHECK(net_memory.closed == (kind & 2 ? 0u : 1u));
        FUZZ_CHECK(server_log_lines().size() == (kind & 2 ? 1u : 0u));
    }
    delete room_text;
    delete name_text;
    return 0;
}
