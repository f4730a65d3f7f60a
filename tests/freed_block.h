// A look at a block of memory at the moment when it is given back. For one file of a program
// that says "// Wraps: free".
#ifndef QV_TESTS_FREED_BLOCK_H
#define QV_TESTS_FREED_BLOCK_H

#include <stddef.h>
#include <stdint.h>

inline struct {
    const void *block; // nullptr: none, or it was freed
    size_t size;
    bool wiped;
} freed_block;

// From now on it is this block.
inline void watch_block(const void *block, size_t size)
{
    freed_block = {block, size, false};
}

// Whether the block was given back, and all of it was zero then.
inline bool watched_block_was_wiped()
{
    return !freed_block.block && freed_block.wiped;
}

extern "C" void __real_free(void *block);
extern "C" void __wrap_free(void *block);

void __wrap_free(void *block)
{
    if (block && block == freed_block.block) {
        freed_block.wiped = true;
        for (size_t i = 0; i < freed_block.size; i++)
            if (((const uint8_t *)block)[i] != 0)
                freed_block.wiped = false;
        freed_block.block = nullptr;
    }
    __real_free(block);
}

#endif
