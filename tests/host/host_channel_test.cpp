// Labels: threaded
//
// The flush, over a real connection. Records are recognised by their header; what is in them
// is the secure channel's business.
#include "host/host_channel.h"
#include "host/out_buffer.h"
#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

#include <string.h>

using namespace host;

namespace
{
struct fixture {
    socket_pair sockets = socket_pair_open();

    explicit fixture(uint32_t encrypted)
    {
        out_reset();
        channel_open(&host_channel, sockets.host);
        host_channel.sender.encrypted = encrypted;
    }

    ~fixture()
    {
        channel_reset(&host_channel);
        socket_pair_close(&sockets);
    }

    bool receive(uint8_t *bytes, size_t n)
    {
        return net_recv_all(sockets.viewer, bytes, n, {true, clock_ms() + 10000});
    }
};
} // namespace

TEST_CASE("a flush sends all that was appended as one record and empties the buffer")
{
    fixture f(1);
    out_append_header(MSG_FRAME_END, 3);
    out_append("abc", 3);
    CHECK(channel_flush());
    CHECK(out_used() == 0);
    out_append("d", 1);
    CHECK(channel_flush());
    // 4 bytes of length, the text, 16 bytes of tag; then the next.
    uint8_t wire[4 + 11 + 16 + 4];
    REQUIRE(f.receive(wire, sizeof wire));
    CHECK(load_le32(wire) == 11);
    CHECK(load_le32(wire + 4 + 11 + 16) == 1);
}

TEST_CASE("a flush of nothing sends an empty record")
{
    fixture f(1);
    CHECK(channel_flush());
    net_abort(f.sockets.host);
    uint8_t wire[20];
    REQUIRE(f.receive(wire, sizeof wire));
    CHECK(load_le32(wire) == 0);
    CHECK_FALSE(f.receive(wire, 1));
}

TEST_CASE("a failed flush empties the buffer too")
{
    fixture f(1);
    net_abort(f.sockets.host);
    out_append("abc", 3);
    CHECK_FALSE(channel_flush());
    CHECK(out_used() == 0);
}

TEST_CASE("messages with a hole in them are not sent, and the next ones are")
{
    fixture f(0);
    out_append("ab", 2);
    REQUIRE(out_reserve(SIZE_MAX - 1) == nullptr);
    out_append("c", 1);
    CHECK_FALSE(channel_flush());
    CHECK(out_used() == 0);
    out_append("d", 1);
    CHECK(channel_flush());
    uint8_t byte = 0;
    REQUIRE(f.receive(&byte, 1));
    CHECK(byte == 'd');
}
