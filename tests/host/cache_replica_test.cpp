// One thread runs here, so nobody else can hold the lock that guards the replica.
#include "host/cache_replica.h"
#include "tests/test.h"

#include <vector>

using namespace host;

// Hash number `member` of set 7: the sets are the remainders modulo 4096.
static constexpr uint64_t of_set_7(uint64_t member)
{
    return 7 + 4096 * member;
}

static constexpr uint64_t A = of_set_7(1), B = of_set_7(2), C = of_set_7(3), D = of_set_7(4);
static constexpr uint32_t START_SEQ = 0xFFFFFFFE; // numbers wrap
static constexpr uint32_t NOW = 1000;

// A session whose viewer has advertised these and nothing else.
static void start(const std::vector<uint64_t> &advertised) NO_THREAD_SAFETY_ANALYSIS
{
    cache_replica_reset(START_SEQ, NOW);
    for (uint64_t hash : advertised)
        cache_replica_advertised(hash);
    cache_replica_advert_over();
}

static void send(const std::vector<uint64_t> &tiles) NO_THREAD_SAFETY_ANALYSIS
{
    for (uint64_t hash : tiles)
        cache_replica_tile(hash, NOW);
}

// Frame number n of the session.
static uint32_t frame(uint32_t n)
{
    return START_SEQ + n;
}

static void refer(uint64_t hash, uint32_t n) NO_THREAD_SAFETY_ANALYSIS
{
    cache_replica_reference(hash, frame(n), NOW);
}

static bool holds(uint64_t hash) NO_THREAD_SAFETY_ANALYSIS
{
    return cache_replica_holds(hash);
}

TEST_CASE("of a full set the tile that was used longer ago goes")
{
    struct {
        const char *what;
        std::vector<uint64_t> advertised, sent;
        uint64_t referred; // 0: nothing
        uint64_t goes;     // when another is sent
        uint64_t stays;
    } rows[] = {
        {"sent", {}, {A, B}, 0, A, B},
        {"sent again", {}, {A, B, A}, 0, B, A},
        {"the first, referred to", {}, {A, B}, A, B, A},
        {"the second, referred to", {}, {A, B}, B, A, B},
        {"advertised first", {A, B}, {}, 0, A, B},
        {"advertised first, referred to", {A, B}, {}, A, B, A},
        {"a third, advertised", {A, B, D}, {}, 0, A, B},
        {"one twice, advertised", {A, A, B}, {}, 0, A, B},
        {"one advertised, one sent", {A}, {B}, 0, A, B},
        {"one advertised, one sent, the first referred to", {A}, {B}, A, B, A},
        {"what is not there, referred to", {}, {A, B}, D, A, B},
        {"hash 0, sent", {}, {A, B, 0}, 0, A, B},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        start(row.advertised);
        send(row.sent);
        if (row.referred != 0)
            refer(row.referred, 1);
        CHECK(holds(A));
        CHECK(holds(B));
        CHECK_FALSE(holds(C));
        CHECK_FALSE(holds(D));
        send({C});
        CHECK(holds(C));
        CHECK_FALSE(holds(row.goes));
        CHECK(holds(row.stays));
    }
}

TEST_CASE("tiles of other sets do not touch a set")
{
    start({A, B});
    send({C + 1, D + 1, C - 1, C + 4096u * 4096u + 2});
    CHECK(holds(A));
    CHECK(holds(B));
}

TEST_CASE("hash 0 is never held") NO_THREAD_SAFETY_ANALYSIS
{
    start({0});
    send({0});
    refer(0, 1);
    CHECK_FALSE(holds(0));
    CHECK_FALSE(cache_replica_crowded(0, NOW)); // its set has room
}

TEST_CASE("a new session begins with an empty cache") NO_THREAD_SAFETY_ANALYSIS
{
    start({A});
    send({B});
    start({});
    CHECK_FALSE(holds(A));
    CHECK_FALSE(holds(B));
}

TEST_CASE("what is sent before the advertisement lies on top of it") NO_THREAD_SAFETY_ANALYSIS
{
    cache_replica_reset(START_SEQ, NOW);
    send({C});
    CHECK_FALSE(holds(C)); // where it will lie is not known
    cache_replica_advertised(A);
    refer(A, 1);
    cache_replica_advertised(B);
    CHECK_FALSE(holds(A));
    cache_replica_advert_over(); // the viewer held A and B, took C for A, missed A
    CHECK_FALSE(holds(A));
    CHECK(holds(B));
    CHECK(holds(C));
    send({A, D});                // for B, and for C
    cache_replica_advert_over(); // nothing is applied twice
    CHECK(holds(A));
    CHECK(holds(D));
    CHECK_FALSE(holds(C));
}

TEST_CASE("a reference before the advertisement's end keeps what it names")
NO_THREAD_SAFETY_ANALYSIS
{
    cache_replica_reset(START_SEQ, NOW);
    cache_replica_advertised(A);
    refer(A, 1);
    cache_replica_advertised(B);
    cache_replica_advert_over();
    send({C});
    CHECK(holds(A));
    CHECK_FALSE(holds(B));
}

TEST_CASE("more before the advertisement's end than is kept gives the replica up")
NO_THREAD_SAFETY_ANALYSIS
{
    for (uint32_t more = 0; more < 2; more++) {
        cache_replica_reset(START_SEQ, NOW);
        for (uint32_t i = 0; i < REPLICA_EARLY_MAX + more; i++)
            send({A});
        cache_replica_advert_over();
        send({B});
        CHECK(holds(A) == (more == 0));
        CHECK(holds(B) == (more == 0));
        send({A, B});
        CHECK(cache_replica_crowded(C, NOW) == (more == 0));
        cache_replica_missed(C, frame(0));
        CHECK(cache_replica_may_refer(B) == (more == 0));
    }
    start({});
    send({A});
    CHECK(holds(A)); // another session, another chance
}

TEST_CASE("a set is crowded by two tiles that were used within ten minutes")
NO_THREAD_SAFETY_ANALYSIS
{
    constexpr uint32_t FIRST = 0xFFFFFF00, MINUTE = 60000; // the clock wraps
    cache_replica_reset(START_SEQ, FIRST);
    cache_replica_advert_over();
    cache_replica_tile(A, FIRST);
    CHECK_FALSE(cache_replica_crowded(C, FIRST));
    cache_replica_tile(B, FIRST + MINUTE);
    CHECK(cache_replica_crowded(C, FIRST + MINUTE));
    CHECK_FALSE(cache_replica_crowded(A, FIRST + MINUTE)); // would throw out nothing
    CHECK_FALSE(cache_replica_crowded(B, FIRST + MINUTE));
    CHECK_FALSE(cache_replica_crowded(C + 1, FIRST + MINUTE));
    CHECK(cache_replica_crowded(C, FIRST + 10 * MINUTE - 1));
    CHECK_FALSE(cache_replica_crowded(C, FIRST + 10 * MINUTE));
    cache_replica_reference(A, frame(1), FIRST + 10 * MINUTE);
    CHECK(cache_replica_crowded(C, FIRST + 11 * MINUTE - 1));
    CHECK_FALSE(cache_replica_crowded(C, FIRST + 11 * MINUTE));
}

TEST_CASE("what was only advertised crowds nothing") NO_THREAD_SAFETY_ANALYSIS
{
    start({A, B});
    CHECK_FALSE(cache_replica_crowded(C, NOW));
    refer(A, 1);
    CHECK_FALSE(cache_replica_crowded(C, NOW));
    refer(B, 1);
    CHECK(cache_replica_crowded(C, NOW));
}

TEST_CASE("nothing is crowded before the advertisement is over") NO_THREAD_SAFETY_ANALYSIS
{
    cache_replica_reset(START_SEQ, NOW);
    send({A, B});
    CHECK_FALSE(cache_replica_crowded(C, NOW));
    cache_replica_advert_over();
    CHECK(cache_replica_crowded(C, NOW));
}

TEST_CASE("from the first miss on only what the replica holds may be referred to")
NO_THREAD_SAFETY_ANALYSIS
{
    start({A});
    CHECK(cache_replica_may_refer(A));
    CHECK(cache_replica_may_refer(B));
    refer(B, 1);
    cache_replica_missed(B, frame(0));
    CHECK(cache_replica_may_refer(A));
    CHECK_FALSE(cache_replica_may_refer(B));
    send({B});
    CHECK(cache_replica_may_refer(B));
    start({});
    CHECK(cache_replica_may_refer(B));
}

TEST_CASE("a miss ends the advertisement") NO_THREAD_SAFETY_ANALYSIS
{
    cache_replica_reset(START_SEQ, NOW);
    cache_replica_advertised(A);
    send({B});
    cache_replica_missed(C, frame(0));
    CHECK(cache_replica_may_refer(A));
    CHECK(cache_replica_may_refer(B));
}

TEST_CASE("four misses of what the replica held end the references") NO_THREAD_SAFETY_ANALYSIS
{
    struct {
        const char *what;
        uint64_t hash;      // referred to in frame 3 and missed
        uint32_t confirmed; // when the misses come
        uint32_t unheld;    // frame that referred to what was not held; 0: none did
        bool ends;
    } rows[] = {
        {"held", A, 2, 0, true},
        {"held, and none confirmed yet", A, 0, 0, true},
        {"not held", C, 2, 0, false},
        {"confirmed", A, 3, 0, false}, // not that reference's, then
        {"held, and another in doubt", A, 2, 3, false},
        {"held, and another that was confirmed", A, 2, 2, true},
        {"hash 0", 0, 2, 0, false},
    };
    for (const auto &row : rows) {
        CAPTURE(row.what);
        start({A, B});
        if (row.unheld == 2)
            refer(D, 2);
        refer(row.hash, 3);
        if (row.unheld == 3)
            refer(D, 3);
        for (uint32_t n = 1; n <= REPLICA_MISSES_MAX + 2; n++) {
            cache_replica_missed(row.hash, frame(row.confirmed));
            CHECK(cache_replica_may_refer(B) == !(row.ends && n >= 4));
        }
        send({C});
        CHECK(cache_replica_may_refer(C) == !row.ends); // for the rest of the session
    }
}

TEST_CASE("a hash that was not referred to since is not missed") NO_THREAD_SAFETY_ANALYSIS
{
    start({A, B});
    refer(A, 1);
    send({C, D}); // which take the places of both
    send({C, A}); // and A its own again
    for (uint32_t n = 0; n < 5; n++)
        cache_replica_missed(A, frame(0));
    CHECK(cache_replica_may_refer(A));
}

TEST_CASE("a reference that is acknowledged without a miss proves the cache")
NO_THREAD_SAFETY_ANALYSIS
{
    start({A});
    CHECK_FALSE(cache_replica_proven(frame(5)));
    refer(A, 6);
    CHECK_FALSE(cache_replica_proven(frame(5)));
    CHECK(cache_replica_proven(frame(6)));
    CHECK(cache_replica_proven(frame(7)));
    cache_replica_missed(A, frame(5));
    CHECK_FALSE(cache_replica_proven(frame(7))); // but not for ever

    start({A});
    CHECK_FALSE(cache_replica_proven(frame(7)));
}

TEST_CASE("references that were missed prove nothing") NO_THREAD_SAFETY_ANALYSIS
{
    start({A});
    refer(B, 1);
    refer(C, 1);
    refer(A, 2);
    cache_replica_missed(B, frame(0));
    cache_replica_missed(C, frame(0));
    CHECK_FALSE(cache_replica_proven(frame(1)));
    refer(A, 3);
    CHECK_FALSE(cache_replica_proven(frame(2)));
    CHECK(cache_replica_proven(frame(3)));
}
