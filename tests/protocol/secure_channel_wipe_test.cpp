// Wraps: free
// What becomes of the memory in which records were opened: seen when it is given back.
#include "protocol/secure_channel.h"

#include "tests/freed_block.h"
#include "tests/socket_pair.h"
#include "tests/test.h"

#include <vector>

// A channel each way under one key (of zeros), and what was sent is received.
namespace
{
struct linked {
    socket_pair socks;
    secure_channel host, viewer;
};
} // namespace

static void start_sealed(secure_channel *channel, net_socket sock)
{
    channel_open(channel, sock);
    channel->sender.encrypted = 1;
    channel->receiver.encrypted = 1;
}

static linked open_linked()
{
    linked l = {};
    l.socks = socket_pair_open();
    start_sealed(&l.host, l.socks.host);
    start_sealed(&l.viewer, l.socks.viewer);
    return l;
}

// The viewer sends this many bytes of 'k' and the host receives them.
static void type(linked *l, size_t count)
{
    std::vector<uint8_t> keys(count, 'k');
    REQUIRE(channel_send(&l->viewer.sender, keys.data(), count));
    std::vector<uint8_t> got(count);
    REQUIRE(channel_recv(&l->host.receiver, got.data(), count));
    REQUIRE(got == keys);
    REQUIRE(l->host.receiver.recv_buf[count - 1] == 'k');
}

static void watch_received(const channel_receiver &receiver)
{
    watch_block(receiver.recv_buf, receiver.recv_cap);
}

TEST_CASE("what was received is wiped before its memory is given back at the end")
{
    linked l = open_linked();
    type(&l, 1000);
    watch_received(l.host.receiver);
    channel_reset(&l.host);
    CHECK(watched_block_was_wiped());
    channel_reset(&l.viewer);
    socket_pair_close(&l.socks);
}

TEST_CASE("a receiving half that went elsewhere is wiped there")
{
    linked l = open_linked();
    type(&l, 1000);
    watch_received(l.host.receiver);
    channel_receiver taken;
    channel_take_receiver(&l.host, &taken);
    channel_reset(&l.host);
    CHECK(freed_block.block == taken.recv_buf); // still there
    channel_reset_receiver(&taken);
    CHECK(watched_block_was_wiped());
    channel_reset(&l.viewer);
    socket_pair_close(&l.socks);
}

TEST_CASE("what was received is wiped before a longer record takes other memory")
{
    linked l = open_linked();
    type(&l, 1000);
    watch_received(l.host.receiver);
    type(&l, 20000); // 1000 and the slack are less
    CHECK(watched_block_was_wiped());
    channel_reset(&l.host);
    channel_reset(&l.viewer);
    socket_pair_close(&l.socks);
}

TEST_CASE("what was received is wiped after a record that did not open, too")
{
    linked l = open_linked();
    type(&l, 1000);
    watch_received(l.host.receiver);
    l.viewer.sender.send_counter++; // as if one had been dropped
    uint8_t byte = 'k';
    REQUIRE(channel_send(&l.viewer.sender, &byte, 1));
    REQUIRE_FALSE(channel_recv(&l.host.receiver, &byte, 1));
    channel_reset(&l.host);
    CHECK(watched_block_was_wiped());
    channel_reset(&l.viewer);
    socket_pair_close(&l.socks);
}
