// Finds what moved between two pictures of a screen: the viewer is then told of a move in 24
// bytes instead of being sent the pixels again at their new place.
//
// For captures that report no moves. All of it is guesswork about two pictures, and is
// therefore free to be wrong: a move is applied to the old picture as the viewer applies it to
// its own, and what differs afterwards is sent as ever. A wrong guess costs bytes.
//
// Pure: the record holds what one search leaves for the next and the tables of a search, and is
// used by one thread. Nothing is allocated; the time of a search is bounded by the size of the
// pictures, whatever they show.
#ifndef QV_HOST_MOVE_SEARCH_H
#define QV_HOST_MOVE_SEARCH_H

#include "protocol/messages.h"
#include "protocol/tile.h"

#include <stdint.h>

namespace host
{

constexpr int32_t MOVES_FOUND_MAX = 6;
// Fewer changed tiles are cheaper to send than to search.
constexpr int32_t MOVE_TILES_MIN = 4;
// Larger screens are not searched.
constexpr int32_t MOVE_SIDE_MAX = 8192; // pixels
constexpr int32_t MOVE_TILES_MAX = 8192;

constexpr int32_t MOVE_CELL = 16; // pixels; a tile has 4 x 4 cells

// What the caller knows of a tile, and what the search keeps of it.
struct move_tile {
    // The caller's.
    uint8_t changed; // the tile differs between the two pictures
    // The tile is sent in any case, or not now, or is no longer what it seems: it is no reason
    // for a search, and moves neither improve nor spoil it.
    uint8_t apart;
    uint8_t uncertain; // nobody knows what the viewer shows here, so nothing moves from here

    // The search's, of changed tiles; zero before it.
    uint16_t cells; // bit 4 * (y / 16) + x / 16: this part of the tile differs somewhere
    uint64_t rows;  // bit y: row y differs somewhere
};

// Two pictures of one size in rows of padded_width * 4 bytes, padding included.
struct move_pictures {
    const uint8_t *now;
    uint8_t *before; // found moves are applied to it
    int32_t width, height;
    int32_t padded_width;
};

struct move_vector {
    int32_t dx, dy; // what was at (x, y) is now at (x + dx, y + dy)
};

// Right and bottom are exclusive.
struct move_box {
    int32_t left, top, right, bottom;
};

// A place in a picture that can be found again in another.
struct move_point {
    uint64_t key;
    uint32_t selector;
    uint16_t x, y;
    uint16_t next;   // point of the same key, 1-based; 0: none
    uint16_t places; // points of this key, kept at its first
};

struct move_vote {
    move_vector vector;
    int32_t weight; // 0: the slot is free
};

constexpr int32_t MOVE_POINTS = 4096;
constexpr int32_t MOVE_KEY_SLOTS = 8192; // twice the points, so that probing stays short
constexpr int32_t MOVE_VOTE_SLOTS = 2048;
constexpr int32_t MOVE_BLOCK_ROWS = 34;
constexpr int32_t MOVE_BLOCK_COLUMNS = MOVE_SIDE_MAX / MOVE_CELL;
constexpr int32_t MOVE_REACH_MAX = 256; // lines to either side of an edge
constexpr int32_t MOVE_LAST_VECTORS = 2;

// Zeroed = nothing was searched yet.
struct move_search {
    // From one search to the next.
    move_vector last[MOVE_LAST_VECTORS]; // those of the last frame that moved
    int32_t last_count;
    move_box failed;  // tiles that changed where nothing was found,
    int32_t failures; // so often in a row
    int32_t frames_to_skip;

    // Of one search.
    move_point old_points[MOVE_POINTS], new_points[MOVE_POINTS];
    uint16_t key_slots[MOVE_KEY_SLOTS]; // index of a key's first old point, 1-based
    move_vote votes[MOVE_VOTE_SLOTS];
    int8_t scores[MOVE_TILES_MAX * 16]; // of cells, rows of the changed box
    int32_t sums[MOVE_BLOCK_ROWS][MOVE_BLOCK_COLUMNS];
    int32_t gains[2 * MOVE_REACH_MAX]; // of the lines around an edge
};

// Moves pixels of a picture as the viewer does.
void move_pixels(uint8_t *picture, uint64_t pitch, const copy_rect &move);

// Forgets earlier frames, at a session's start.
void move_search_reset(move_search *search);

// Finds up to MOVES_FOUND_MAX moves that bring `before` closer to `now`, applies them to it one
// after the other and returns how many there are. Every move lies on the screen, source and
// destination. tiles has one record a tile of the screen, row by row. A tile under a move may
// differ afterwards or not, whatever it did before.
int32_t move_search_frame(move_search *search, const move_pictures &pictures, move_tile *tiles,
                          copy_rect found[MOVES_FOUND_MAX]);

} // namespace host

#endif
