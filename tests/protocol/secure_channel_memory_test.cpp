// Native libraries: c
// Labels: threaded
//
// Records whose buffer cannot be had. The sanitizers of the native builds refuse single
// allocations above the limit below; nothing else can make one fail on demand.
#include "protocol/secure_channel.h"

#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

extern "C" {

const char *__asan_default_options()
{
    return "max_allocation_size_mb=1:allocator_may_return_null=1";
}

const char *__tsan_default_options()
{
    return "max_allocation_size_mb=1:allocator_may_return_null=1";
}
}

static uint8_t data[2 << 20]; // more than can be allocated

static void start_sealed(secure_channel *channel, net_socket sock)
{
    channel_open(channel, sock);
    channel->sender.encrypted = 1;
    channel->receiver.encrypted = 1;
}

TEST_CASE("a record that cannot be sealed for want of memory ends the channel unsent")
{
    socket_pair p = socket_pair_open();
    secure_channel channel = {};
    start_sealed(&channel, p.host);
    REQUIRE(channel_send(&channel.sender, data, 100));
    CHECK_FALSE(channel_send(&channel.sender, data, sizeof data));
    CHECK_FALSE(channel.sender.open);
    CHECK(channel.sender.send_cap == 100 + 4112); // still the buffer that it has
    CHECK_FALSE(channel_send(&channel.sender, data, 1));
    uint8_t first[120];
    CHECK(net_recv_all(p.viewer, first, sizeof first, {true, clock_ms() + 10000}));
    CHECK_FALSE(net_recv_all(p.viewer, first, 1, {true, clock_ms() + 10000}));
    channel_reset(&channel);
    socket_pair_close(&p);
}

TEST_CASE("a record that cannot be received for want of memory ends the channel unread")
{
    socket_pair p = socket_pair_open();
    secure_channel channel = {};
    start_sealed(&channel, p.host);
    uint8_t header[4];
    store_le32(header, sizeof data);
    REQUIRE(net_send_all(p.viewer, header, sizeof header));
    uint32_t start = clock_ms();
    channel.receiver.deadline = {true, start + 10000}; // no body ever comes
    uint8_t byte = 0;
    CHECK_FALSE(channel_recv(&channel.receiver, &byte, 1));
    CHECK(clock_ms() - start < 5000);
    CHECK_FALSE(channel.receiver.open);
    CHECK(channel.receiver.recv_buf == nullptr);
    CHECK(channel.receiver.recv_cap == 0);
    channel_reset(&channel);
    socket_pair_close(&p);
}
