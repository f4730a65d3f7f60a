// The file in which the tile cache survives the session. All integers little-endian:
//
//   offset  size          field
//   0       4             magic, 0x51564331
//   4       4             number of slots, 8192
//   8       4             bytes of a tile, 16384
//   12      4             written as 0, not looked at
//   16      8192 * 8      the hash of each slot, 0 for an empty one
//   65552   8192 * 16384  the pixels of each slot, zeros for an empty one
//
// It always has its full size, 134283280 bytes. Nothing here touches the cache itself: the
// caller hands over keys and tiles.
#ifndef QV_VIEWER_CACHE_FILE_H
#define QV_VIEWER_CACHE_FILE_H

#include "viewer/cache_disk.h"
#include "viewer/tile_cache.h"

#include <stddef.h>
#include <stdint.h>

namespace viewer
{

constexpr uint64_t CACHE_FILE_KEYS_AT = 16;
constexpr uint64_t CACHE_FILE_TILES_AT = CACHE_FILE_KEYS_AT + CACHE_CAPACITY * 8;
constexpr uint64_t CACHE_FILE_BYTES =
    CACHE_FILE_TILES_AT + (uint64_t)CACHE_CAPACITY * TILE_BYTES;

// The path of the file, in a folder that is made if need be; false when the user has no
// folder for it.
[[nodiscard]] bool cache_file_path(char path[CACHE_PATH_SIZE]);

// Opens a file that has the right length and header, and reads its keys. DISK_INVALID for
// any other, and for one that cannot be read; all keys are 0 then. The file is whatever
// somebody has left there, and is trusted in nothing but its pixels.
[[nodiscard]] disk_file cache_file_open(const char *path, uint64_t keys[CACHE_CAPACITY]);

// Reads the pixels of the slots that have a key. False when they could not all be read.
[[nodiscard]] bool cache_file_read_tiles(disk_file file, const uint64_t keys[CACHE_CAPACITY],
                                         uint8_t *tiles);

// Writing goes to a temporary file beside the cache's, which takes its place when it is
// complete. Create one, write the pixels of slots into it, then commit or discard it.
// DISK_INVALID when it cannot be made, or another viewer is writing one.
[[nodiscard]] disk_file cache_file_create(const char *path);
[[nodiscard]] bool cache_file_write_tile(disk_file file, uint32_t slot,
                                         const uint8_t pixels[TILE_BYTES]);

// Completes the file with its keys and puts it in the old one's place. False when that
// failed: the old file is then as it was. The file is closed in any case.
[[nodiscard]] bool cache_file_commit(disk_file file, const char *path,
                                     const uint64_t keys[CACHE_CAPACITY]);
void cache_file_discard(disk_file file, const char *path);

} // namespace viewer

#endif
