// The system's secure random generator.
#ifndef QV_PROTOCOL_RANDOM_H
#define QV_PROTOCOL_RANDOM_H

#include <stddef.h>
#include <stdint.h>

// Fills data[0..n) with secure random bytes. False when the generator failed; the bytes are
// then not to be used. Any thread.
bool random_bytes(uint8_t *data, size_t n);

#endif
