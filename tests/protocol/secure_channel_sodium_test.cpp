// Native libraries: sodium
// Labels: threaded
//
// Records of random lengths, the largest included, against libsodium's in both directions.
#include "protocol/secure_channel.h"

#include "protocol/thread.h"
#include "tests/socket_pair.h"
#include "tests/sodium_peer.h"
#include "tests/test.h"

#include <atomic>
#include <string.h>
#include <vector>

static std::vector<std::vector<unsigned char>> random_records(test_random *random)
{
    std::vector<size_t> sizes = {0, 1, 15, 16, 17, 63, 64, 65, 4095, 4096, 65535, 65536, 65537};
    for (int i = 0; i < 60; i++)
        sizes.push_back(random->below(i % 4 ? 300 : 200000));
    sizes.push_back(16777216);
    sizes.push_back(3);
    std::vector<std::vector<unsigned char>> records;
    for (size_t size : sizes) {
        records.emplace_back(size);
        for (unsigned char &byte : records.back())
            byte = (unsigned char)random->next();
    }
    return records;
}

static void make_keys(test_random *random, secure_channel *ours, sodium_peer *theirs,
                      const socket_pair &p)
{
    channel_open(ours, p.host);
    ours->sender.encrypted = 1;
    ours->receiver.encrypted = 1;
    *theirs = {};
    theirs->sock = p.viewer;
    for (int i = 0; i < 32; i++) {
        ours->sender.send_key[i] = theirs->recv_key[i] = (uint8_t)random->next();
        ours->receiver.recv_key[i] = theirs->send_key[i] = (uint8_t)random->next();
    }
    // Anywhere in the 64 bits.
    ours->sender.send_counter = theirs->recv_counter = random->next();
    ours->receiver.recv_counter = theirs->send_counter = random->next();
}

TEST_CASE("every record sent is the one that libsodium would have sent")
{
    REQUIRE(sodium_init() >= 0);
    test_random random = test_random_seeded("secure_channel_sodium_test, sending");
    struct job {
        secure_channel ours;
        std::vector<std::vector<unsigned char>> records;
        std::atomic<bool> ok;
    } j = {{}, random_records(&random), false};
    socket_pair p = socket_pair_open();
    sodium_peer theirs;
    make_keys(&random, &j.ours, &theirs, p);
    thread *t = thread_start(
        [](void *parameter) {
            job *my = (job *)parameter;
            bool ok = true;
            for (const auto &record : my->records)
                ok = ok && channel_send(&my->ours.sender, record.data(), record.size());
            my->ok = ok;
        },
        &j);
    REQUIRE(t);
    std::vector<unsigned char> plain, wire;
    for (const auto &record : j.records) {
        CAPTURE(record.size());
        uint64_t counter = theirs.recv_counter;
        REQUIRE(sodium_recv(&theirs, &plain, &wire));
        CHECK(plain == record);
        CHECK(wire == sodium_record(theirs.recv_key, counter, record));
    }
    REQUIRE(thread_join(t, 60000));
    CHECK(j.ok);
    channel_reset(&j.ours);
    socket_pair_close(&p);
}

TEST_CASE("every record that libsodium sealed opens, however the caller cuts the stream")
{
    REQUIRE(sodium_init() >= 0);
    test_random random = test_random_seeded("secure_channel_sodium_test, receiving");
    struct job {
        sodium_peer theirs;
        std::vector<std::vector<unsigned char>> records;
        std::atomic<bool> ok;
    } j = {{}, random_records(&random), false};
    socket_pair p = socket_pair_open();
    secure_channel ours = {};
    make_keys(&random, &ours, &j.theirs, p);
    std::vector<unsigned char> stream;
    for (const auto &record : j.records)
        stream.insert(stream.end(), record.begin(), record.end());
    thread *t = thread_start(
        [](void *parameter) {
            job *my = (job *)parameter;
            bool ok = true;
            for (const auto &record : my->records)
                ok = ok && sodium_send(&my->theirs, record);
            my->ok = ok;
        },
        &j);
    REQUIRE(t);
    std::vector<unsigned char> got(stream.size());
    for (size_t at = 0; at < got.size();) {
        size_t n = 1 + random.below(random.below(2) ? 100 : 300000);
        n = n < got.size() - at ? n : got.size() - at;
        REQUIRE(channel_recv(&ours.receiver, got.data() + at, n));
        at += n;
    }
    CHECK(got == stream);
    REQUIRE(thread_join(t, 60000));
    CHECK(j.ok);
    channel_reset(&ours);
    socket_pair_close(&p);
}
