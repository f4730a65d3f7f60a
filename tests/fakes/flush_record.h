// A channel that keeps the plain messages of each flush, in place of the host's own.
#ifndef QV_TESTS_FAKES_FLUSH_RECORD_H
#define QV_TESTS_FAKES_FLUSH_RECORD_H

#include <functional>
#include <stdint.h>
#include <vector>

extern std::vector<std::vector<uint8_t>> flush_records; // oldest first
extern bool flush_fails;                                // the next flushes return false

// Runs inside every flush, on the flushing thread.
extern std::function<void()> flush_hook;

#endif
