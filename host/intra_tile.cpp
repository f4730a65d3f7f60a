// When a tile is better off without its base, and when a viewer can be sent such tiles.
//
// The count stands for compressing both ways. It looks at what the compressor lives on,
// pixels that came before, in a table of 4 KiB that is as forgetful as the compressor's own,
// and takes 1.3 us, less than a tenth of one compression. On pages, tables, dialogs and
// photos that replace each other it comes within 1 % of always choosing the shorter of the
// two.
//
// What keeps the viewer's picture right is not here but in tile_base.h: an intra tile is a
// reference that is not yet confirmed. All that the record here is for is not to go on with a
// viewer for whom each of them would have to be sent again.
//
// Server thread, and the control thread for misses; all under host_lock.
#include "host/intra_tile.h"

#include "host/tile_hash.h"
#include "protocol/tile.h"

#include <string.h>

namespace host
{

constexpr int32_t SEEN_BITS = 10;
constexpr uint32_t SEEN_FACTOR =
    2654435761; // spreads what is close, as a multiplier of 2^32/phi

// More of the tile's pixels than of the difference's have to be repeated by so many: the pair
// of messages takes 20 bytes more, and the tile is in doubt for a round trip.
constexpr int32_t CLEARLY = 4;

static_assert(INTRA_PIXELS == TILE_SIZE / INTRA_ROW_STEP * TILE_SIZE);

static struct {
    bool refused; // the viewer missed the tile of zeros when it was needed
    bool sent;    // an intra tile went out
    bool taught;  // the tile of zeros went out under its hash, last in frame taught_seq
    uint32_t taught_seq;
} intra GUARDED_BY(host_lock);

intra_repeats intra_count(const uint8_t *now, const uint8_t *before, uint64_t pitch)
{
    // Zeroed, so black counts as seen.
    uint32_t own_seen[1 << SEEN_BITS] = {};
    uint32_t difference_seen[1 << SEEN_BITS] = {};
    intra_repeats repeats = {0, 0};
    for (int32_t y = 0; y < TILE_SIZE; y += INTRA_ROW_STEP) {
        uint32_t own[TILE_SIZE], was[TILE_SIZE];
        memcpy(own, now + (uint64_t)y * pitch, sizeof own);
        memcpy(was, before + (uint64_t)y * pitch, sizeof was);
        for (int32_t x = 0; x < TILE_SIZE; x++) {
            uint32_t difference = own[x] ^ was[x];
            uint32_t *seen = &own_seen[own[x] * SEEN_FACTOR >> (32 - SEEN_BITS)];
            repeats.own += *seen == own[x];
            *seen = own[x];
            seen = &difference_seen[difference * SEEN_FACTOR >> (32 - SEEN_BITS)];
            repeats.difference += *seen == difference;
            *seen = difference;
        }
    }
    return repeats;
}

bool intra_pays(const intra_repeats &repeats)
{
    return repeats.own > repeats.difference + CLEARLY;
}

// ---------------------------------------------------------------------------------------

void intra_start()
{
    intra = {};
}

uint64_t intra_zero_hash()
{
    static const uint8_t zeros[TILE_BYTES] = {};
    static const uint64_t hash = tile_hash(zeros);
    return hash;
}

bool intra_ready(bool proven, bool held, uint32_t confirmed_seq)
{
    return proven && held && !intra.refused &&
           !(intra.taught && frame_later(intra.taught_seq, confirmed_seq));
}

bool intra_teaches(const tile_base &base, bool proven, bool held, uint32_t confirmed_seq)
{
    if (held || intra.refused || tile_base_uncertain(base, confirmed_seq))
        return false;
    if (intra.taught && frame_later(intra.taught_seq, confirmed_seq))
        return false; // under way
    return proven || base.base_blank != 0;
}

void intra_taught(uint32_t seq)
{
    intra.taught = true;
    intra.taught_seq = seq;
}

void intra_sent()
{
    intra.sent = true;
}

// Any reference to the tile of zeros counts, not just those of intra tiles: of a tile that went
// as one, changed to black and was referred to, the misses of both say the same.
bool intra_missed(uint64_t hash)
{
    if (!intra.sent || hash != intra_zero_hash())
        return false;
    intra.refused = true;
    return true;
}

} // namespace host
