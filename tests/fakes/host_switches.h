// What the host may send, switched by the test in place of the identity. As the programs
// set it: consoles as text, no window list.
#ifndef QV_TESTS_FAKES_HOST_SWITCHES_H
#define QV_TESTS_FAKES_HOST_SWITCHES_H

#include <stdint.h>

extern int32_t host_switch_text_layer;
extern int32_t host_switch_window_list;

#endif
