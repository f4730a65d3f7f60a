// The window as the receive thread knows it: a place to post to. For tests of the decoder
// without a session; one thread.
#ifndef QV_TESTS_FAKES_WINDOW_POSTS_H
#define QV_TESTS_FAKES_WINDOW_POSTS_H

#include <stdint.h>

extern uint32_t posted_repaints, posted_closes;

#endif
