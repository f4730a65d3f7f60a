// The secure random generator replaced by a script, so that a test knows the secret keys:
//
//   // Fakes: random_secrets
//
//   random_secrets_give(key, 32);  // what the next calls hand out, in this order
//   random_secrets_reset();        // nothing left: every call fails
//
// Any thread.
#ifndef QV_TESTS_FAKES_RANDOM_SECRETS_H
#define QV_TESTS_FAKES_RANDOM_SECRETS_H

#include <stddef.h>
#include <stdint.h>

void random_secrets_give(const uint8_t *data, size_t n);
void random_secrets_reset();

#endif
