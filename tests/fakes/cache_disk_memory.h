// The tile cache's files in memory, so that a test neither finds nor leaves one on the disk,
// and can let every call fail.
#ifndef QV_TESTS_FAKES_CACHE_DISK_MEMORY_H
#define QV_TESTS_FAKES_CACHE_DISK_MEMORY_H

#include "tests/fakes/sparse_bytes.h"

#include <atomic>
#include <functional>
#include <map>
#include <stdint.h>
#include <string>

constexpr const char *DISK_MEMORY_PATH = "memory\\qv\\tiles.bin";
constexpr const char *DISK_MEMORY_TEMPORARY = "memory\\qv\\tiles.bin.tmp";

// One call of the seam that changes something or reads, as the hook sees it.
struct disk_memory_call {
    const char *what; // "open", "create", "read", "write", "length", "flush", "replace"
    uint64_t offset;
    uint64_t n;
};

struct disk_memory_record {
    std::map<std::string, sparse_bytes> files;
    bool no_folder;
    bool read_only; // at first: nothing can be created
    // Called before each call; false lets it fail, a read after half of the bytes. May change
    // what it likes.
    std::function<bool(const disk_memory_call &)> hook;
    std::string calls; // a word each but for reads and writes
    std::atomic<uint32_t> created, replaced;
};
extern disk_memory_record disk_memory;

// No files; writable or not.
void disk_memory_reset(bool read_only = false);

#endif
