// The viewer's channel in memory, for tests without a connection: what the test puts into
// memory_incoming is what the viewer receives, and each send is kept whole.
#ifndef QV_TESTS_FAKES_VIEWER_CHANNEL_MEMORY_H
#define QV_TESTS_FAKES_VIEWER_CHANNEL_MEMORY_H

#include <stdint.h>
#include <vector>

extern std::vector<uint8_t> memory_incoming; // receives fail at its end
extern std::vector<std::vector<uint8_t>> memory_sent;
extern bool memory_send_fails; // sends are kept and report failure

// Empties both; sends succeed.
void memory_reset();

#endif
