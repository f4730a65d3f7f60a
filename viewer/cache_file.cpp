// The tile cache's file; cache_file.h has the layout.
//
// Reading: a file of another length or with another header is not read at all, and a read
// that fails makes the cache empty. Nothing in the file can do worse than show a wrong
// picture: keys are numbers that are compared, pixels are pixels.
//
// Writing: the pixels come first and the header with the keys last, since a slot's key is
// only known for good when its pixels were taken, and so that a temporary file that was left
// behind half done has no header. The old file stays until the new one is safe on the disk.
//
// Slots without a key are neither read nor written: a file that was given its length reads as
// zeros where nothing was written.
//
// No state. Called by the threads that open and save the cache.
#include "viewer/cache_file.h"

#include "protocol/bytes.h"

#include <stdio.h>
#include <string.h>

namespace viewer
{

static_assert(CACHE_FILE_TILES_AT == 65552);
static_assert(CACHE_FILE_BYTES == 134283280);

static constexpr uint32_t MAGIC = 0x51564331;
static constexpr size_t HEADER_BYTES = CACHE_FILE_KEYS_AT;

// The path of the temporary file.
static constexpr size_t TEMPORARY_SIZE = CACHE_PATH_SIZE + 4;

static void temporary_path(char temporary[TEMPORARY_SIZE], const char *path)
{
    snprintf(temporary, TEMPORARY_SIZE, "%s.tmp", path);
}

static uint64_t tile_at(uint32_t slot)
{
    return CACHE_FILE_TILES_AT + (uint64_t)slot * TILE_BYTES;
}

bool cache_file_path(char path[CACHE_PATH_SIZE])
{
    char base[DISK_FOLDER_SIZE];
    if (!disk_folder(base))
        return false;
    static_assert(CACHE_PATH_SIZE >= DISK_FOLDER_SIZE + sizeof "\\qv" + sizeof "\\tiles.bin");
    char folder[DISK_FOLDER_SIZE + sizeof "\\qv"];
    snprintf(folder, sizeof folder, "%s\\qv", base);
    disk_make_folder(folder);
    snprintf(path, CACHE_PATH_SIZE, "%s\\tiles.bin", folder);
    return true;
}

static bool read_header(disk_file file)
{
    uint8_t header[HEADER_BYTES];
    return disk_read(file, 0, header, sizeof header) && load_le32(header) == MAGIC &&
           load_le32(header + 4) == CACHE_CAPACITY && load_le32(header + 8) == TILE_BYTES;
}

static bool read_keys(disk_file file, uint64_t keys[CACHE_CAPACITY])
{
    if (!disk_read(file, CACHE_FILE_KEYS_AT, keys, CACHE_CAPACITY * sizeof keys[0]))
        return false;
    for (uint32_t slot = 0; slot < CACHE_CAPACITY; slot++)
        keys[slot] = load_le64((const uint8_t *)&keys[slot]);
    return true;
}

disk_file cache_file_open(const char *path, uint64_t keys[CACHE_CAPACITY])
{
    uint64_t length = 0;
    disk_file file = disk_open(path, &length);
    if (file != DISK_INVALID && length >= CACHE_FILE_BYTES && read_header(file) &&
        read_keys(file, keys))
        return file;
    memset(keys, 0, CACHE_CAPACITY * sizeof keys[0]);
    if (file != DISK_INVALID)
        disk_close(file);
    return DISK_INVALID;
}

bool cache_file_read_tiles(disk_file file, const uint64_t keys[CACHE_CAPACITY], uint8_t *tiles)
{
    uint32_t slot = 0;
    while (slot < CACHE_CAPACITY) {
        uint32_t end = slot;
        while (end < CACHE_CAPACITY && keys[end] != 0)
            end++;
        uint64_t offset = (uint64_t)slot * TILE_BYTES;
        if (end > slot && !disk_read(file, CACHE_FILE_TILES_AT + offset, tiles + offset,
                                     (size_t)(end - slot) * TILE_BYTES))
            return false;
        slot = end + 1; // the one at end has no key
    }
    return true;
}

disk_file cache_file_create(const char *path)
{
    char temporary[TEMPORARY_SIZE];
    temporary_path(temporary, path);
    disk_file file = disk_create(temporary);
    if (file == DISK_INVALID || disk_set_length(file, CACHE_FILE_BYTES))
        return file;
    cache_file_discard(file, path);
    return DISK_INVALID;
}

bool cache_file_write_tile(disk_file file, uint32_t slot, const uint8_t pixels[TILE_BYTES])
{
    return disk_write(file, tile_at(slot), pixels, TILE_BYTES);
}

static bool write_keys(disk_file file, const uint64_t keys[CACHE_CAPACITY])
{
    uint8_t piece[512 * 8];
    static_assert(CACHE_CAPACITY * 8 % sizeof piece == 0);
    for (uint64_t at = 0; at < CACHE_CAPACITY * 8; at += sizeof piece) {
        for (size_t i = 0; i < sizeof piece; i += 8)
            store_le64(piece + i, keys[(at + i) / 8]);
        if (!disk_write(file, CACHE_FILE_KEYS_AT + at, piece, sizeof piece))
            return false;
    }
    return true;
}

static bool write_header(disk_file file)
{
    uint8_t header[HEADER_BYTES] = {};
    store_le32(header, MAGIC);
    store_le32(header + 4, CACHE_CAPACITY);
    store_le32(header + 8, TILE_BYTES);
    return disk_write(file, 0, header, sizeof header);
}

bool cache_file_commit(disk_file file, const char *path, const uint64_t keys[CACHE_CAPACITY])
{
    if (!write_keys(file, keys) || !write_header(file) || !disk_flush(file)) {
        cache_file_discard(file, path);
        return false;
    }
    disk_close(file);
    char temporary[TEMPORARY_SIZE];
    temporary_path(temporary, path);
    if (disk_replace(temporary, path))
        return true;
    disk_remove(temporary);
    return false;
}

void cache_file_discard(disk_file file, const char *path)
{
    disk_close(file);
    char temporary[TEMPORARY_SIZE];
    temporary_path(temporary, path);
    disk_remove(temporary);
}

} // namespace viewer
