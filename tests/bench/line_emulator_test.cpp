// The emulated line does what it says: by its arithmetic, and with real packets between two
// network namespaces. Of time only what can never be is asserted, a packet that came too early,
// so a busy machine changes nothing.
#include "bench/lines/line_queue.h"
#include "bench/lines/line_tun.h"
#include "protocol/bytes.h"
#include "protocol/clock.h"
#include "protocol/net.h"
#include "tests/test.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <string.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr uint64_t MS = 1000;

// ---------------------------------------------------------------------------------------
// Arithmetic

TEST_CASE("a packet leaves behind those before it at the rate, and comes after the delay")
{
    // 1,000 bytes a millisecond.
    line_queue queue = line_queue_make(
        {.rate = 1000000, .delay_us = 20 * MS, .queue_us = 5 * MS, .loss = 0, .seed = 1});
    struct {
        uint64_t at_us;
        uint32_t bytes;
        bool carried;
        uint64_t there_us;
    } rows[] = {
        {100 * MS, 1000, true, 121 * MS},
        {100 * MS, 1500, true, 122500}, // 1 ms behind the first
        {101 * MS, 3500, true, 126 * MS},
        {101 * MS, 500, true, 126500}, // waits for 5 ms, the most
        {101 * MS, 100, false, 0},     // would wait for 5.5 ms
        {101500, 100, true, 126600},   // 5 ms again
        {200 * MS, 250, true, 220250}, // an idle line is no reserve
    };
    for (const auto &row : rows) {
        uint64_t there_us = 0;
        CHECK(line_queue_put(&queue, row.at_us, row.bytes, &there_us) == row.carried);
        if (row.carried)
            CHECK(there_us == row.there_us);
    }
    line_count all = line_queue_count(queue, 0, UINT64_MAX);
    CHECK(all.packets == 7);
    CHECK(all.bytes == 6950);
    CHECK(all.dropped == 1);
    CHECK(all.carried_bytes == 6850);
    line_count later = line_queue_count(queue, 101 * MS, 200 * MS);
    CHECK(later.packets == 4);
    CHECK(later.carried_bytes == 6600); // all but the last; they left from 101 to 106.6 ms
    CHECK(line_queue_count(queue, 101001, 106 * MS).carried_bytes == 1500);
    CHECK(line_queue_waits(queue, 0, UINT64_MAX) ==
          std::vector<uint32_t>{0, 0, 1000, 1500, 5000, 5000});
}

TEST_CASE("packets are lost behind the queue, as many as asked for and the same each time")
{
    std::vector<bool> first;
    for (int run = 0; run < 2; run++) {
        line_queue queue = line_queue_make(
            {.rate = 1000000, .delay_us = 0, .queue_us = MS, .loss = 10000, .seed = 7});
        std::vector<bool> carried;
        uint64_t there_us = 0;
        for (uint64_t i = 0; i < 100000; i++)
            carried.push_back(line_queue_put(&queue, i * MS, 1000, &there_us));
        line_count count = line_queue_count(queue, 0, UINT64_MAX);
        // 1,000 expected with a deviation of 31.
        CHECK(count.lost >= 800);
        CHECK(count.lost <= 1200);
        CHECK(count.dropped == 0);
        CHECK(queue.free_us == 100000 * MS); // they took their time on the line
        if (run == 0)
            first = carried;
        CHECK(carried == first);
    }
}

// ---------------------------------------------------------------------------------------
// Real packets

struct emulated {
    line_tun line;
    std::thread carrier;
    bool right;
};

// False, with a message, where the system refuses; then the test has nothing to test.
static bool start(emulated *e, const line_settings &to_viewer, const line_settings &to_host)
{
    std::string reason;
    if (!line_open(&e->line, to_viewer, to_host, &reason)) {
        MESSAGE("skipped, no emulated line here: " << reason);
        return false;
    }
    e->right = false;
    e->carrier = std::thread([e] { e->right = line_run(&e->line); });
    return true;
}

static void stop(emulated *e)
{
    e->line.stop = true;
    e->carrier.join();
    CHECK(e->right);
    CHECK(line_device_drops(e->line, LINE_HOST) == 0);
    CHECK(line_device_drops(e->line, LINE_VIEWER) == 0);
    line_close(&e->line);
}

static constexpr uint16_t PORT = 9000;
static constexpr uint32_t LAST = UINT32_MAX; // number of the packet that says so
static constexpr size_t UDP_BYTES = 972;     // 1,000 with IP and UDP

static int udp_socket(line_side side)
{
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(PORT);
    inet_pton(AF_INET, line_address[side], &address.sin_addr);
    REQUIRE(bind(sock, (const sockaddr *)&address, sizeof address) == 0);
    inet_pton(AF_INET, line_address[side == LINE_HOST ? LINE_VIEWER : LINE_HOST],
              &address.sin_addr);
    REQUIRE(connect(sock, (const sockaddr *)&address, sizeof address) == 0);
    int room = 200000; // what every system grants; doubled by it, for 180 packets
    setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    timeval patience = {.tv_sec = 0, .tv_usec = 20000};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return sock;
}

// Packets that came and found the socket's buffer full, since this thread was not let run.
// Those that say it is over may be among them.
static uint32_t socket_drops(int sock)
{
    uint32_t numbers[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof numbers;
    REQUIRE(getsockopt(sock, SOL_SOCKET, SO_MEMINFO, numbers, &length) == 0);
    return numbers[SK_MEMINFO_DROPS];
}

struct arrival {
    uint32_t number;
    uint64_t at_us;
};

struct arrivals {
    std::vector<arrival> all; // in order
    uint32_t unread;          // besides
    uint64_t begin_us;        // of sending
};

// Sends so many packets from one side as fast as that goes, and returns what came to the other.
// Packets that say it is over follow until one has come.
static arrivals send_packets(emulated *e, line_side from, uint32_t count)
{
    arrivals arrived = {};
    std::atomic<bool> ready = false, over = false;
    std::thread receiver([&] {
        REQUIRE(line_enter(e->line, from == LINE_HOST ? LINE_VIEWER : LINE_HOST));
        int sock = udp_socket(from == LINE_HOST ? LINE_VIEWER : LINE_HOST);
        ready = true;
        uint64_t limit_us = clock_us() + 60000 * MS;
        while (!over && clock_us() < limit_us) {
            uint8_t data[2048];
            if (recv(sock, data, sizeof data, 0) != UDP_BYTES)
                continue;
            uint32_t number = load_le32(data);
            if (number == LAST)
                over = true;
            else
                arrived.all.push_back({number, clock_us()});
        }
        over = true;
        arrived.unread = socket_drops(sock);
        close(sock);
    });
    std::thread sender([&] {
        REQUIRE(line_enter(e->line, from));
        int sock = udp_socket(from);
        while (!ready)
            clock_sleep_ms(1);
        uint8_t data[UDP_BYTES] = {};
        arrived.begin_us = clock_us();
        for (uint32_t i = 0; i < count; i++) {
            store_le32(data, i);
            REQUIRE(send(sock, data, sizeof data, 0) == (ssize_t)sizeof data);
        }
        store_le32(data, LAST);
        while (!over) {
            (void)send(sock, data, sizeof data, 0); // refused once the receiver is gone
            clock_sleep_ms(20);
        }
        close(sock);
    });
    receiver.join();
    sender.join();
    return arrived;
}

TEST_CASE("packets cross both ways, in order and none before its time")
{
    for (line_side from : {LINE_HOST, LINE_VIEWER}) {
        line_settings slow = {
            .rate = 1000000, .delay_us = 30 * MS, .queue_us = 10000 * MS, .loss = 0, .seed = 1};
        line_settings fast = slow;
        fast.rate = 1000000000;
        emulated e;
        if (!start(&e, from == LINE_HOST ? slow : fast, from == LINE_HOST ? fast : slow))
            return;
        arrivals arrived = send_packets(&e, from, 100);
        stop(&e);
        REQUIRE(arrived.all.size() == 100); // the socket has room for so many
        for (uint32_t i = 0; i < 100; i++) {
            CHECK(arrived.all[i].number == i);
            // 1 ms a packet
            CHECK(arrived.all[i].at_us - arrived.begin_us >= 30 * MS + (i + 1) * MS);
        }
    }
}

TEST_CASE("what would wait for too long is dropped, and counted")
{
    // 5 ms a packet; 20 may wait.
    line_settings slow = {
        .rate = 200000, .delay_us = MS, .queue_us = 100 * MS, .loss = 0, .seed = 1};
    emulated e;
    if (!start(&e, slow, slow))
        return;
    arrivals arrived = send_packets(&e, LINE_HOST, 1000);
    stop(&e);
    const line_queue &queue = e.line.from[LINE_HOST];
    REQUIRE(queue.moments.size() > 1000); // with the last ones
    size_t carried = 0;
    for (size_t i = 0; i < 1000; i++) {
        carried += !queue.moments[i].dropped;
        CHECK((queue.moments[i].wait_us > 100 * MS) == queue.moments[i].dropped);
        CHECK(queue.moments[i].bytes == 1000);
    }
    CHECK(carried >= 21);  // one goes out, 20 wait
    CHECK(carried < 1000); // all would take five seconds
    CHECK(arrived.all.size() <= carried);
    CHECK(arrived.all.size() + arrived.unread >= carried);
}

TEST_CASE("lost packets do not come, and are counted")
{
    line_settings lossy = {
        .rate = 10000000, .delay_us = MS, .queue_us = 10000 * MS, .loss = 100000, .seed = 3};
    emulated e;
    if (!start(&e, lossy, lossy))
        return;
    arrivals arrived = send_packets(&e, LINE_HOST, 1000);
    stop(&e);
    const line_queue &queue = e.line.from[LINE_HOST];
    REQUIRE(queue.moments.size() > 1000);
    size_t lost = 0;
    for (size_t i = 0; i < 1000; i++)
        lost += queue.moments[i].lost;
    CHECK(lost >= 50); // 100 expected with a deviation of 9.5
    CHECK(lost <= 150);
    CHECK(arrived.all.size() <= 1000 - lost);
    CHECK(arrived.all.size() + arrived.unread >= 1000 - lost);
}

TEST_CASE("a TCP connection brings everything over a line that loses packets")
{
    line_settings lossy = {
        .rate = 2000000, .delay_us = 5 * MS, .queue_us = 200 * MS, .loss = 10000, .seed = 5};
    emulated e;
    if (!start(&e, lossy, lossy))
        return;
    static constexpr size_t BYTES = 400000;
    std::vector<uint8_t> sent(BYTES), got(BYTES);
    test_random random = {11};
    for (uint8_t &byte : sent)
        byte = (uint8_t)random.next();
    std::atomic<bool> listens = false;
    std::thread host([&] {
        REQUIRE(line_enter(e.line, LINE_HOST));
        net_socket listener = net_listen(PORT, 1);
        REQUIRE(listener != NET_INVALID);
        listens = true;
        net_socket sock = net_accept(listener);
        CHECK(net_send_all(sock, sent.data(), BYTES));
        (void)net_wait_readable(sock); // until the other side has it all and closes
        net_close(sock);
        net_close(listener);
    });
    uint64_t taken_us = 0;
    std::thread viewer([&] {
        REQUIRE(line_enter(e.line, LINE_VIEWER));
        while (!listens)
            clock_sleep_ms(1);
        net_socket sock = NET_INVALID;
        uint64_t begin_us = clock_us();
        REQUIRE(net_connect(line_address[LINE_HOST], std::to_string(PORT).c_str(), false,
                            &sock) == NET_CONNECTED);
        CHECK(net_recv_all(sock, got.data(), BYTES, {}));
        taken_us = clock_us() - begin_us;
        net_close(sock);
    });
    viewer.join();
    host.join();
    stop(&e);
    CHECK(got == sent);
    CHECK(taken_us >= 200 * MS); // at 2 MB/s
    CHECK(line_queue_count(e.line.from[LINE_HOST], 0, UINT64_MAX).lost > 0);
}
