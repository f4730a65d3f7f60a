#!/usr/bin/env python3
"""Makes tile_hash.h: expected tile hashes, from the definition in whole numbers.

    python3 tests/vectors/tile_hash.py > tests/vectors/tile_hash.h
"""
MASK = (1 << 64) - 1


def state_after(words):
    h = 0x9E3779B97F4A7C15
    for word in words:
        k = word * 0xFF51AFD7ED558CCD & MASK
        k = k ^ k >> 32 ^ h
        k = (k << 31 | k >> 33) & MASK
        h = k * 0xC4CEB9FE1A85EC53 & MASK
    return h


def tile_hash(words):
    h = state_after(words)
    h = (h ^ h >> 29) * 0x94D049BB133111EB & MASK
    h ^= h >> 32
    return h or 1


def words_of(data):
    return [int.from_bytes(data[i:i + 8], "little") for i in range(0, len(data), 8)]


# The last word, after zeros, that leaves the state, and with it the unfinished hash, 0. The
# state is 0 when k is: when p ^ p >> 32 equals the state before, p being the product of the
# word. p's upper half is that state's; the lower half follows from it, and the word from p.
before = state_after([0] * 2047)
product = before ^ before >> 32
vanishing = product * pow(0xFF51AFD7ED558CCD, -1, 1 << 64) & MASK
assert state_after([0] * 2047 + [vanishing]) == 0

tiles = {
    "zeros": bytes(16384),
    "ones": b"\xff" * 16384,
    "count": bytes(i & 255 for i in range(16384)),
    "last_byte": bytes(16383) + b"\x01",
}
print("// Tile hashes by tests/vectors/tile_hash.py.")
for name, data in tiles.items():
    print(f"constexpr uint64_t TILE_HASH_{name.upper()} = 0x{tile_hash(words_of(data)):016X}ull;")
print("// The last word of a tile of zeros whose hash would come out as 0.")
print(f"constexpr uint64_t TILE_HASH_VANISHING_WORD = 0x{vanishing:016X}ull;")
