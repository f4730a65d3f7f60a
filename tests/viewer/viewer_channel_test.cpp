// Labels: threaded
#include "viewer/viewer_channel.h"

#include "tests/socket_pair.h"
#include "tests/test.h"

#include <atomic>
#include <string.h>
#include <thread>
#include <vector>

using namespace viewer;
using bytes = std::vector<uint8_t>;

namespace
{

// The viewer's channel and a host's, sealed with keys made up here.
struct connected_channels {
    socket_pair sockets;
    secure_channel host;

    connected_channels() : sockets(socket_pair_open()), host()
    {
        viewer_channel_init();
        viewer_channel_init(); // again: harmless
        channel_open(&viewer_channel, sockets.viewer);
        channel_open(&host, sockets.host);
        memset(viewer_channel.sender.send_key, 0x11, CHANNEL_KEY_BYTES);
        memset(host.receiver.recv_key, 0x11, CHANNEL_KEY_BYTES);
        memset(viewer_channel.receiver.recv_key, 0x22, CHANNEL_KEY_BYTES);
        memset(host.sender.send_key, 0x22, CHANNEL_KEY_BYTES);
        viewer_channel.sender.encrypted = viewer_channel.receiver.encrypted = 1;
        host.sender.encrypted = host.receiver.encrypted = 1;
    }

    ~connected_channels()
    {
        channel_reset(&viewer_channel);
        channel_reset(&host);
        socket_pair_close(&sockets);
    }
};

} // namespace

TEST_CASE("each message leaves as one record, header and payload together")
{
    connected_channels c;
    const uint8_t stamp[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    CHECK(viewer_send_frame_ack(stamp));
    CHECK(viewer_send_cache_miss({0x0102, 0x0304, 0x1122334455667788ull}));
    CHECK(viewer_send_mouse({0x01020304, 5, MOUSE_WHEEL, 0, -120}));
    CHECK(viewer_send_key(0x41, true));
    CHECK(viewer_send_key(0xA4, false));
    const bytes expected[] = {
        {0x81, 0, 0, 0, 8, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8},
        {0x86, 0, 0,    0,    12,   0,    0,    0,    2,    1,
         4,    3, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11},
        {0x82, 0, 0, 0, 12, 0, 0, 0, 4, 3, 2, 1, 5, 0, 0, 0, 3, 0, 0x88, 0xFF}, // 65536 - 120
        {0x83, 0, 0, 0, 4, 0, 0, 0, 0x41, 0, 1, 0},
        {0x83, 0, 0, 0, 4, 0, 0, 0, 0xA4, 0, 0, 0},
    };
    uint64_t records = 0;
    for (const bytes &message : expected) {
        bytes got(message.size());
        REQUIRE(channel_recv(&c.host.receiver, got.data(), got.size()));
        CHECK(got == message);
        CHECK(c.host.receiver.recv_counter == ++records);
        CHECK(c.host.receiver.recv_pos == c.host.receiver.recv_len); // nothing more in it
    }
}

TEST_CASE("what the host sends is received")
{
    connected_channels c;
    const uint8_t data[5] = {1, 2, 3, 4, 5};
    REQUIRE(channel_send(&c.host.sender, data, 3));
    REQUIRE(channel_send(&c.host.sender, data + 3, 2));
    uint8_t got[5] = {};
    REQUIRE(viewer_recv(got, 5));
    CHECK(memcmp(got, data, 5) == 0);
    net_abort(c.sockets.host);
    CHECK_FALSE(viewer_recv(got, 1));
}

TEST_CASE("a channel that is not open neither sends nor receives")
{
    viewer_channel_init();
    channel_reset(&viewer_channel);
    uint8_t byte = 0;
    CHECK_FALSE(viewer_send(&byte, 1));
    CHECK_FALSE(viewer_send_key(1, true));
    CHECK_FALSE(viewer_recv(&byte, 1));
}

// Reads one message of a known kind; false when no more records open or it is no such kind.
static bool read_message(channel_receiver *from, uint8_t *type, uint8_t payload[MOUSE_BYTES])
{
    uint8_t head[MESSAGE_HEADER_BYTES];
    if (!channel_recv(from, head, sizeof head))
        return false;
    message_header header = get_header(head);
    *type = header.type;
    uint32_t expected = header.type == MSG_FRAME_ACK    ? FRAME_ACK_BYTES
                        : header.type == MSG_CACHE_MISS ? CACHE_MISS_BYTES
                        : header.type == MSG_MOUSE      ? MOUSE_BYTES
                        : header.type == MSG_KEY        ? KEY_BYTES
                                                        : 0;
    return expected != 0 && header.length == expected &&
           channel_recv(from, payload, header.length);
}

TEST_CASE("many threads send and the host opens every record, each thread's in order")
{
    connected_channels c;
    constexpr uint32_t COUNT = 3000;
    // More threads than the viewer has: every kind of message meets every other.
    static const auto send_ack = [](uint32_t i) {
        uint8_t stamp[FRAME_ACK_BYTES];
        put_frame_stamp(stamp, {i, ~i});
        return viewer_send_frame_ack(stamp);
    };
    static const auto send_miss = [](uint32_t i) {
        return viewer_send_cache_miss({(uint16_t)i, (uint16_t)~i, i});
    };
    static const auto send_move = [](uint32_t i) {
        return viewer_send_mouse({(int32_t)i, -(int32_t)i, MOUSE_MOVE, 0, 0});
    };
    static const auto send_key = [](uint32_t i) {
        return viewer_send_key((uint16_t)i, i % 2 != 0);
    };
    static std::atomic<bool> sent;
    sent = true;
    auto sender = [](auto send) {
        return std::thread([send] {
            for (uint32_t i = 0; i < COUNT; i++)
                if (!send(i))
                    sent = false;
        });
    };
    std::thread threads[] = {sender(send_ack), sender(send_miss), sender(send_move),
                             sender(send_key)};

    uint32_t acks = 0, misses = 0, moves = 0, keys = 0;
    bool whole = true;
    while (whole && acks + misses + moves + keys < 4 * COUNT) {
        uint8_t type = 0, payload[MOUSE_BYTES] = {};
        whole = read_message(&c.host.receiver, &type, payload);
        if (!whole)
            break;
        if (type == MSG_FRAME_ACK) {
            whole = get_frame_stamp(payload).frame_seq == acks &&
                    get_frame_stamp(payload).sent_ms == ~acks;
            acks++;
        } else if (type == MSG_CACHE_MISS) {
            whole = get_tile_ref(payload).hash == misses &&
                    get_tile_ref(payload).tile_y == (uint16_t)~misses;
            misses++;
        } else if (type == MSG_MOUSE) {
            whole = get_mouse(payload).x == (int32_t)moves &&
                    get_mouse(payload).y == -(int32_t)moves;
            moves++;
        } else {
            whole = (uint16_t)load_le32(payload) == (uint16_t)keys;
            keys++;
        }
    }
    if (!whole)
        net_abort(c.sockets.host); // lets blocked senders go
    for (std::thread &t : threads)
        t.join();
    CHECK(sent);
    CHECK(acks == COUNT);
    CHECK(misses == COUNT);
    CHECK(moves == COUNT);
    CHECK(keys == COUNT);
    CHECK(c.host.receiver.recv_counter == 4 * COUNT);
}
