// The block codec at the ends of its buffers: each lies directly before or behind a page that
// cannot be touched, and what comes out is held against the plain algorithms.
#include "host/lz4_block.h"
#include "tests/host/lz4_plain.h"
#include "tests/host/lz4_reference.h"
#include "tests/host/lz4_samples.h"
#include "tests/test.h"

#include <string.h>
#include <vector>

#ifdef _WIN32
#include "protocol/win32.h"
#else
#include <sys/mman.h>
#endif

using bytes = std::vector<uint8_t>;

static constexpr size_t PAGE = 65536; // a multiple of every system's
static constexpr size_t ROOM = 2 * PAGE;

// ROOM bytes between two pages that cannot be touched. Stays for the life of the program.
static uint8_t *guarded_room()
{
#ifdef _WIN32
    uint8_t *all =
        (uint8_t *)VirtualAlloc(nullptr, ROOM + 2 * PAGE, MEM_RESERVE, PAGE_NOACCESS);
    REQUIRE(all != nullptr);
    REQUIRE(VirtualAlloc(all + PAGE, ROOM, MEM_COMMIT, PAGE_READWRITE) != nullptr);
#else
    uint8_t *all = (uint8_t *)mmap(nullptr, ROOM + 2 * PAGE, PROT_NONE,
                                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    REQUIRE(all != MAP_FAILED);
    REQUIRE(mprotect(all + PAGE, ROOM, PROT_READ | PROT_WRITE) == 0);
#endif
    return all + PAGE;
}

// n bytes against the page before or the page behind the room.
static uint8_t *placed(uint8_t *room, size_t n, bool behind)
{
    REQUIRE(n <= ROOM);
    return behind ? room + ROOM - n : room;
}

static int32_t compress_guarded(const bytes &source, bool behind, size_t capacity,
                                uint8_t **dst)
{
    static uint8_t *from = guarded_room(), *to = guarded_room();
    uint8_t *src = placed(from, source.size(), behind);
    if (!source.empty())
        memcpy(src, source.data(), source.size());
    *dst = placed(to, capacity, behind);
    memset(*dst, 0xA5, capacity);
    return lz4_compress_block(src, (int32_t)source.size(), *dst, (int32_t)capacity);
}

// Whether the decoder does with the block what its rules say; both ways to place it.
static bool decodes_as_defined(const bytes &block, size_t capacity)
{
    static uint8_t *from = guarded_room(), *to = guarded_room();
    lz4_reference expected = lz4_reference_decode(block.data(), block.size(), capacity);
    bool same = true;
    for (bool behind : {true, false}) {
        uint8_t *src = placed(from, block.size(), behind);
        uint8_t *dst = placed(to, capacity, behind);
        if (!block.empty())
            memcpy(src, block.data(), block.size());
        // Nothing behind the capacity changes, where it does not end at the page.
        size_t after = ROOM - capacity < 256 ? ROOM - capacity : 256;
        if (!behind)
            memset(dst + capacity, 0xA5, after);
        int32_t got = lz4_decompress_block(src, (int32_t)block.size(), dst, (int32_t)capacity);
        same = same && got == expected.result &&
               (got <= 0 || memcmp(dst, expected.out.data(), (size_t)got) == 0);
        for (size_t i = 0; !behind && i < after; i++)
            same = same && dst[capacity + i] == 0xA5;
    }
    return same;
}

static void put_length(bytes *block, size_t rest)
{
    for (; rest >= 255; rest -= 255)
        block->push_back(255);
    block->push_back((uint8_t)rest);
}

// Literals 1, 2, 3 .. and a match; match_length 0: none.
static void put_sequence(bytes *block, size_t literals, size_t offset, size_t match_length)
{
    size_t rest = match_length == 0 ? 0 : match_length - 4;
    block->push_back((uint8_t)((literals < 15 ? literals : 15) << 4 | (rest < 15 ? rest : 15)));
    if (literals >= 15)
        put_length(block, literals - 15);
    for (size_t i = 0; i < literals; i++)
        block->push_back((uint8_t)(i * 37 + 1));
    if (match_length == 0)
        return;
    block->push_back((uint8_t)offset);
    block->push_back((uint8_t)(offset >> 8));
    if (rest >= 15)
        put_length(block, rest - 15);
}

// Around 4, 16, 19, 64 and the lengths at which an extension grows.
static const size_t LENGTHS[] = {
    4,  5,  7,  8,  9,  11, 12, 15, 16, 17, 18,  19,  20,  21,  31,  32,  33,  47,  48,  49, 62,
    63, 64, 65, 66, 79, 80, 81, 95, 96, 97, 127, 128, 129, 272, 273, 274, 275, 528, 529, 530};

TEST_CASE("every offset and length gives what forward copying gives, however near the ends")
{
    for (size_t offset = 1; offset <= 70; offset += offset < 20 || offset > 60 ? 1 : 7)
        for (size_t length : LENGTHS)
            for (size_t tail : {0u, 1u, 3u, 11u, 12u, 13u, 14u, 30u}) {
                bytes block;
                put_sequence(&block, offset, offset, length);
                put_sequence(&block, tail % 3, offset, 4 + tail); // the next one is right too
                put_sequence(&block, tail, 0, 0);
                size_t whole = offset + length + tail % 3 + 4 + tail + tail;
                for (size_t capacity : {whole, whole + 1, whole + 15, whole + 40, whole + 78,
                                        whole + 79, whole + 200, whole - 1, whole - tail})
                    REQUIRE_MESSAGE(decodes_as_defined(block, capacity), "offset ", offset,
                                    " length ", length, " tail ", tail, " capacity ", capacity,
                                    " of ", whole);
            }
}

TEST_CASE("every number of literals is copied, however near the ends")
{
    for (size_t literals = 0; literals <= 540;
         literals += literals < 100 ? 1 : 1 + literals % 7)
        for (size_t tail : {0u, 5u, 13u, 17u, 60u, 63u, 64u, 65u, 66u, 67u, 68u, 69u, 100u}) {
            bytes block;
            put_sequence(&block, 1, 1, 4);
            put_sequence(&block, literals, 1 + literals % 5, 6);
            put_sequence(&block, tail, 0, 0);
            size_t whole = 1 + 4 + literals + 6 + tail;
            for (size_t slack : {0u, 1u, 8u, 70u, 72u, 77u, 78u, 79u, 80u, 150u})
                REQUIRE_MESSAGE(decodes_as_defined(block, whole + slack), "literals ", literals,
                                " tail ", tail, " slack ", slack);
            REQUIRE(decodes_as_defined(block, whole - 1));
            REQUIRE(decodes_as_defined(block, literals));
        }
}

TEST_CASE("the longest sequences that take no extension of literals end at both ends")
{
    for (size_t literals : {13u, 14u, 15u})
        for (size_t offset : {2u, 3u, 9u, 16u, 20u})
            for (size_t length : {4u, 16u, 17u, 18u, 19u, 63u, 64u, 65u})
                for (size_t tail = 0; tail <= 20; tail++) {
                    bytes block;
                    put_sequence(&block, 10, 5, 15);
                    put_sequence(&block, literals, offset, length);
                    if (tail > 0)
                        put_sequence(&block, tail - 1, 0, 0);
                    size_t whole = 10 + 15 + literals + length + (tail > 0 ? tail - 1 : 0);
                    for (size_t capacity = whole - 2; capacity < whole + 90; capacity++)
                        REQUIRE(decodes_as_defined(block, capacity));
                }
}

TEST_CASE("a block cut anywhere, into any small capacity, is refused or ends as defined")
{
    bytes block;
    put_sequence(&block, 3, 2, 8);
    put_sequence(&block, 0, 1, 300);
    put_sequence(&block, 17, 20, 40);
    put_sequence(&block, 70, 9, 19);
    put_sequence(&block, 2, 64, 18);
    put_sequence(&block, 5, 0, 0);
    size_t whole = 3 + 8 + 300 + 17 + 40 + 70 + 19 + 2 + 18 + 5;
    bytes whole_block = block;
    for (size_t cut = 0; cut <= whole_block.size(); cut++) {
        block.assign(whole_block.begin(), whole_block.begin() + (ptrdiff_t)cut);
        for (size_t capacity = 0; capacity <= whole + 90; capacity++)
            REQUIRE_MESSAGE(decodes_as_defined(block, capacity), "cut ", cut, " capacity ",
                            capacity);
    }
    CHECK(lz4_reference_decode(whole_block.data(), whole_block.size(), whole).result ==
          (int64_t)whole);
}

TEST_CASE("sequences of any kind, wrong ones too, decode as defined at any capacity")
{
    test_random random = test_random_seeded("sequences");
    int32_t refused = 0, whole = 0;
    for (int32_t round = 0; round < 60000; round++) {
        bytes block;
        size_t produced = 0;
        for (uint64_t n = 1 + random.below(12); n > 0; n--) {
            size_t literals = random.below(4) ? random.below(4) : random.below(90);
            size_t length = random.below(3) ? 4 + random.below(16) : 4 + random.below(300);
            size_t offset = random.below(2) ? 1 + random.below(17) : 1 + random.below(400);
            if (random.below(40) != 0 && offset > produced + literals)
                offset = produced + literals;
            if (random.below(60) == 0)
                offset = random.below(2) ? 0 : produced + literals + 1;
            put_sequence(&block, literals, offset, length);
            produced += literals + length;
        }
        if (random.below(2))
            put_sequence(&block, random.below(30), 0, 0);
        if (random.below(3) == 0)
            block.resize(random.below(block.size() + 1));
        size_t around = produced < 50 ? 0 : produced - 50;
        size_t capacity = random.below(4) ? around + random.below(150) : random.below(65);
        REQUIRE(decodes_as_defined(block, capacity));
        lz4_reference expected = lz4_reference_decode(block.data(), block.size(), capacity);
        refused += expected.result < 0;
        whole += expected.result > 0;
    }
    CHECK(refused > 10000);
    CHECK(whole > 5000);
}

TEST_CASE("a whole tile of any kind decodes into exactly its size")
{
    test_random random = test_random_seeded("tiles");
    for (int32_t round = 0; round < 200; round++) {
        bytes tile = lz4_sample(random, 3000), block;
        tile.resize(16384, tile.empty() ? 0 : tile.back());
        block = lz4_compress_plain(tile);
        REQUIRE(lz4_reference_decode(block.data(), block.size(), 16384).out == tile);
        for (size_t capacity : {16384u, 16385u, 16383u, 16384u - 78u})
            REQUIRE(decodes_as_defined(block, capacity));
    }
}

TEST_CASE("the compressor stays in its buffers and writes what the plain algorithm does")
{
    test_random random = test_random_seeded("guarded sources");
    for (int32_t round = 0; round < 4000; round++) {
        bytes source = lz4_sample(random, round % 8 ? 100 : 3000);
        bytes expected = lz4_compress_plain(source);
        for (bool behind : {true, false}) {
            uint8_t *dst;
            int32_t n = compress_guarded(source, behind,
                                         (size_t)lz4_bound((int32_t)source.size()), &dst);
            REQUIRE(n == (int32_t)expected.size());
            REQUIRE(memcmp(dst, expected.data(), expected.size()) == 0);
        }
    }
}

TEST_CASE("matches of every length end where the plain algorithm ends them")
{
    // One match of each length up to 200, ended by a difference or by the source's last bytes.
    for (size_t length = 0; length <= 200; length++)
        for (size_t distance : {1u, 2u, 4u, 16u, 60u})
            for (size_t rest : {0u, 4u, 5u, 6u, 12u, 13u, 20u, 100u}) {
                bytes source;
                for (size_t i = 0; i < distance + 4; i++)
                    source.push_back((uint8_t)(i * 37 + 1));
                for (size_t i = 0; i < length; i++)
                    source.push_back(source[source.size() - distance]);
                for (size_t i = 0; i < rest; i++)
                    source.push_back((uint8_t)(source[source.size() - distance] ^ (i + 128)));
                bytes expected = lz4_compress_plain(source);
                uint8_t *dst;
                int32_t n = compress_guarded(source, true,
                                             (size_t)lz4_bound((int32_t)source.size()), &dst);
                REQUIRE(n == (int32_t)expected.size());
                REQUIRE(memcmp(dst, expected.data(), expected.size()) == 0);
            }
}

TEST_CASE("every capacity below the bound is refused with nothing written")
{
    for (size_t n : {0u, 1u, 12u, 13u, 14u, 254u, 255u, 256u, 700u}) {
        bytes source(n, 7);
        size_t bound = n + n / 255 + 16; // the definition
        for (size_t capacity = 0; capacity <= bound; capacity++) {
            uint8_t *dst;
            int32_t result = compress_guarded(source, true, capacity, &dst);
            REQUIRE((result > 0) == (capacity == bound));
            for (size_t i = 0; capacity < bound && i < capacity; i++)
                REQUIRE(dst[i] == 0xA5);
        }
    }
}
