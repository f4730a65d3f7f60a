// Fakes: net_memory clock_script
// Native libraries: sodium
// Options: -max_len=2048 -len_control=0
// Seeds: 50 800
//
// The record layer. A peer seals records with libsodium; the input says which arrive whole,
// damaged, cut, again or not at all, and how much the product receives at a time. What it
// receives is what was sealed, up to the first record that is not the next honest one, and
// nothing ever after. What it sends is what libsodium would have sealed.
#include "fuzz/fuzz.h"
#include "protocol/bytes.h"
#include "protocol/secure_channel.h"
#include "tests/fakes/net_memory.h"
#include "tests/sodium_peer.h"

using bytes = std::vector<uint8_t>;

static const uint64_t FIRST_COUNTERS[] = {0, 1, 0xFFFFFFFE, 0xFFFFFFFFFFFFFFFE};

static struct {
    secure_channel channel;
    uint8_t send_key[32], recv_key[32]; // the product's
    uint64_t peer_counter;              // number of the peer's next record
    uint64_t send_counter;
    std::vector<bytes> records; // all that were sealed, and what is in them
    std::vector<bytes> plains;
    size_t arrived; // that came whole and in turn
    bytes expected; // plain bytes that are still to be received
    bool intact;    // nothing else came so far
    bool failed;    // a call of the product failed, so all do
} run;

// Bytes come in: the next record, whole, or something that ends the stream.
static void arrive(const bytes &b)
{
    net_memory.incoming.insert(net_memory.incoming.end(), b.begin(), b.end());
    if (b.empty() || !run.intact)
        return;
    run.intact = run.arrived < run.records.size() && b == run.records[run.arrived];
    if (!run.intact)
        return;
    const bytes &plain = run.plains[run.arrived++];
    run.expected.insert(run.expected.end(), plain.begin(), plain.end());
}

static bytes take_plain(fuzz_input *in)
{
    bytes plain = take_bytes(in, take_u8(in));
    if (take_u8(in) % 8 == 0)
        plain.resize(plain.size() + take_u16(in));
    return plain;
}

static bytes seal(const bytes &plain)
{
    run.plains.push_back(plain);
    run.records.push_back(sodium_record(run.recv_key, run.peer_counter++, plain));
    return run.records.back();
}

// As a rule something else than the next honest record.
static void dishonest(fuzz_input *in)
{
    bytes record;
    switch (take_below(in, 5)) {
    case 0:
        record = seal(take_plain(in));
        take_damage(in, &record);
        break;
    case 1: // again, or out of turn
        if (!run.records.empty())
            record = run.records[take_u8(in) % run.records.size()];
        break;
    case 2: // one is left out
        (void)seal(take_plain(in));
        record = seal(take_plain(in));
        break;
    case 3: {
        record.resize(RECORD_HEADER_BYTES);
        const uint32_t lengths[] = {(uint32_t)RECORD_MAX - 1, (uint32_t)RECORD_MAX,
                                    (uint32_t)RECORD_MAX + 1, 0xFFFFFFFF};
        store_le32(record.data(), lengths[take_below(in, 4)]);
        break;
    }
    default:
        record = take_bytes(in, take_u8(in));
        break;
    }
    arrive(record);
}

static void receive(uint64_t n)
{
    exact_bytes dest(n);
    memset(dest.block, 0xA5, dest.size ? dest.size : 1);
    bool got = channel_recv(&run.channel.receiver, dest.data, n);

    uint64_t there = run.failed ? 0 : run.expected.size() < n ? run.expected.size() : n;
    FUZZ_CHECK(got == (!run.failed && there == n));
    for (uint64_t i = 0; i < n; i++)
        FUZZ_CHECK(dest.data[i] == (i < there ? run.expected[i] : 0xA5));
    // No length field makes the buffer larger than the largest record asks for.
    FUZZ_CHECK(run.channel.receiver.recv_cap <=
               RECORD_MAX + RECORD_TAG_BYTES + RECORD_SLACK_BYTES);
    run.expected.erase(run.expected.begin(), run.expected.begin() + (ptrdiff_t)there);
    if (!got) {
        run.failed = true;
        FUZZ_CHECK(net_memory.aborted);
        FUZZ_CHECK(!run.channel.receiver.open);
    }
}

static void send(const bytes &plain)
{
    exact_bytes data(plain);
    size_t before = net_memory.sent.size();
    bool sent = channel_send(&run.channel.sender, data.data, data.size);
    FUZZ_CHECK(sent == !run.failed);
    bytes wire(net_memory.sent.begin() + (ptrdiff_t)before, net_memory.sent.end());
    if (sent)
        FUZZ_CHECK(wire == sodium_record(run.send_key, run.send_counter++, plain));
    else
        FUZZ_CHECK(wire.empty());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, size};
    net_memory_reset();
    run = {};
    run.intact = true;
    fill_noise(run.send_key, 32, 1);
    fill_noise(run.recv_key, 32, 2);
    run.peer_counter = run.send_counter = FIRST_COUNTERS[take_below(&in, 4)];

    channel_open(&run.channel, NET_MEMORY_SOCKET);
    run.channel.sender.encrypted = run.channel.receiver.encrypted = 1;
    memcpy(run.channel.sender.send_key, run.send_key, 32);
    memcpy(run.channel.receiver.recv_key, run.recv_key, 32);
    run.channel.sender.send_counter = run.send_counter;
    run.channel.receiver.recv_counter = run.peer_counter;

    while (in.left > 0) {
        switch (take_below(&in, 8)) {
        case 0:
        case 1:
        case 2:
            arrive(seal(take_plain(&in)));
            break;
        case 3:
            dishonest(&in);
            break;
        case 4:
        case 5:
            receive(take_u8(&in));
            break;
        case 6: // all that is there, or a little more
            receive(run.expected.size() + take_u8(&in) % 2);
            break;
        default:
            send(take_plain(&in));
            break;
        }
    }
    receive(run.expected.size());
    receive(1); // the stream has ended
    receive(0);
    send({1});
    channel_reset(&run.channel);
    static const secure_channel closed = {};
    FUZZ_CHECK(memcmp(&run.channel, &closed, sizeof closed) == 0);
    return 0;
}
